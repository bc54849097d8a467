# Packaging.cmake: where the installed files go, and the packages made of them.
#
# The program reads its version from the Info.plist one level above its own folder, links resolved. So each layout
# puts that file where it meets no other program's:
#
#   component   for                              below the prefix
#   Program     a folder of its own (the         bin/  Info.plist  share/
#               default), and the archive
#   System      a folder shared with others,     bin/TidewellMCP -> ../lib/tidewell-mcp/bin/TidewellMCP
#               as /usr/local                    bin/tidewell-mcp-doctor  lib/tidewell-mcp/Info.plist  share/
#   Debian      on top of System, the package    share/doc/tidewell-mcp/changelog.gz  share/lintian/…
#   AppBundle   an application bundle            Contents/MacOS/TidewellMCP: the version is the application's own
#                                                Contents/Resources/TidewellMCP/LICENSE
set(TIDEWELL_PACKAGE_MAINTAINER "TidewellMCP maintainers <maintainers@tidewell.invalid>" CACHE STRING
    "Who answers for the Debian package. The default reaches nobody: whoever publishes one puts an address here")

set(manual ${PROJECT_SOURCE_DIR}/Packaging/TidewellMCP.1)
set(own lib/tidewell-mcp)
set(documents share/doc/tidewell-mcp)
set(staging ${PROJECT_BINARY_DIR}/packaging)

# install_common COMPONENT [OPTION]: what lies at the same place in both layouts. README.md finds the page by its link.
function(install_common)
    install(PROGRAMS Scripts/doctor DESTINATION bin RENAME tidewell-mcp-doctor COMPONENT ${ARGN})
    install(FILES README.md DESTINATION ${documents} COMPONENT ${ARGN})
    install(FILES Documentation/Clients.md DESTINATION ${documents}/Documentation COMPONENT ${ARGN})
endfunction()

# install_manual EXTENSION COMPONENT [OPTION]: the manual answers by the name of the package and of the doctor too.
function(install_manual extension)
    set(names ${staging}/TidewellMCP.1${extension})
    foreach(other IN ITEMS tidewell-mcp tidewell-mcp-doctor)
        file(CREATE_LINK TidewellMCP.1${extension} ${staging}/${other}.1${extension} SYMBOLIC)
        list(APPEND names ${staging}/${other}.1${extension})
    endforeach()
    install(FILES ${names} DESTINATION share/man/man1 COMPONENT ${ARGN})
endfunction()

# Compressed without name and time, for the same bytes each time.
function(compress from to)
    execute_process(COMMAND gzip -9nc ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The text of a file, as a field of Debian's copyright file has it.
function(read_field file result)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(READ ${file} text)
    string(STRIP "${text}" text)
    string(REPLACE "\n\n" "\n.\n" text "${text}")
    string(REPLACE "\n" "\n " text " ${text}")
    set(${result} "${text}" PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY ${staging})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${manual})
configure_file(${manual} ${staging}/TidewellMCP.1 COPYONLY)
compress(${manual} ${staging}/TidewellMCP.1.gz)

# First, so that nothing is written before it has looked.
install(SCRIPT ${PROJECT_SOURCE_DIR}/Packaging/RefuseSharedPrefix.cmake COMPONENT Program)
install(TARGETS TidewellMCP RUNTIME DESTINATION bin COMPONENT Program)
install(FILES ${PROJECT_BINARY_DIR}/Info.plist DESTINATION . COMPONENT Program)
install(FILES LICENSE Packaging/LIBRARIES DESTINATION ${documents} COMPONENT Program)
install_common(Program)
install_manual("" Program)

install(TARGETS TidewellMCP RUNTIME DESTINATION ${own}/bin COMPONENT System EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_BINARY_DIR}/Info.plist DESTINATION ${own} COMPONENT System EXCLUDE_FROM_ALL)
file(CREATE_LINK ../${own}/bin/TidewellMCP ${staging}/TidewellMCP SYMBOLIC)
install(FILES ${staging}/TidewellMCP DESTINATION bin COMPONENT System EXCLUDE_FROM_ALL)
read_field(${PROJECT_SOURCE_DIR}/LICENSE licence)
read_field(${PROJECT_SOURCE_DIR}/Packaging/LIBRARIES libraries)
configure_file(Packaging/Debian/copyright.in ${staging}/copyright @ONLY)
install(FILES ${staging}/copyright DESTINATION ${documents} COMPONENT System EXCLUDE_FROM_ALL)
install_common(System EXCLUDE_FROM_ALL)
install_manual(.gz System EXCLUDE_FROM_ALL)

install(TARGETS TidewellMCP RUNTIME DESTINATION Contents/MacOS COMPONENT AppBundle EXCLUDE_FROM_ALL)
install(FILES LICENSE DESTINATION Contents/Resources/TidewellMCP COMPONENT AppBundle EXCLUDE_FROM_ALL)

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # of SOURCE_DATE_EPOCH, where that is set
configure_file(Packaging/Debian/changelog.in ${staging}/changelog @ONLY)
compress(${staging}/changelog ${staging}/changelog.gz)
install(FILES ${staging}/changelog.gz DESTINATION ${documents} COMPONENT Debian EXCLUDE_FROM_ALL)
install(FILES Packaging/Debian/lintian-overrides DESTINATION share/lintian/overrides RENAME tidewell-mcp
    COMPONENT Debian EXCLUDE_FROM_ALL)

# --- the packages: `cpack -G TGZ`, `cpack -G DEB` ---------------------------------------------------------------

set(CPACK_PACKAGE_VENDOR "TidewellMCP maintainers")
set(CPACK_PACKAGE_CONTACT ${TIDEWELL_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME TidewellMCP-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR TGZ)
set(CPACK_SOURCE_GENERATOR "")

# Which components go into which package is known only when one is made.
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/Packaging/CPackOptions.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/Packaging/Repack.cmake)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_PACKAGE_NAME tidewell-mcp)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "A small command-line server through which a coding assistant works with the
Tidewell desktop application: it speaks the Model Context Protocol on standard
input and output, and forwards every call to the running application.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The target's name for its processor, not this machine's, so that cross builds are right too.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
if(NOT TIDEWELL_STATIC)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
