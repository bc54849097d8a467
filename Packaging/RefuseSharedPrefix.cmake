# RefuseSharedPrefix.cmake: runs first in an installation into a folder of its own, and stops one into a folder that
# other files share: there, an Info.plist beside bin/ would claim to be everybody's.
cmake_minimum_required(VERSION 3.25)  # for the policies: this runs on its own
file(REAL_PATH "${CMAKE_INSTALL_PREFIX}/" prefix)  # of "/", CMake leaves nothing
string(REGEX REPLACE "(.)/$" "\\1" prefix "${prefix}")
file(REAL_PATH "$ENV{HOME}/" home)

# Some are shared even where they are still empty, or only staged below DESTDIR.
set(shared / /usr /usr/local /opt /opt/homebrew /opt/local ${home} ${home}/.local)

# Its own folder is empty, or holds an earlier installation. Hidden files are the file manager's.
set(place $ENV{DESTDIR}${prefix})
file(GLOB entries RELATIVE ${place} ${place}/*)
list(FILTER entries EXCLUDE REGEX "^[.]")
set(earlier)
if(EXISTS ${place}/Info.plist)
    file(STRINGS ${place}/Info.plist earlier REGEX "<string>TidewellMCP</string>")
endif()

if(prefix IN_LIST shared OR (entries AND NOT earlier))
    message(FATAL_ERROR "${prefix} holds other files too, and Info.plist would lie at its top.\n"
        "Choose a new folder by --prefix, or the layout for shared folders by --component System.")
endif()
