# RefuseSharedPrefix.cmake: runs first in an installation into a folder of its own, and stops one into a folder that
# other programs share: there, an Info.plist beside bin/ would claim to be everybody's.
set(prefix "${CMAKE_INSTALL_PREFIX}")
cmake_path(NORMAL_PATH prefix)
string(REGEX REPLACE "/$" "" prefix "${prefix}")
if(prefix MATCHES "^(|/usr|/usr/local|/opt|/opt/homebrew|/opt/local)$" OR prefix STREQUAL "$ENV{HOME}/.local")
    message(FATAL_ERROR "${prefix}/ is shared with other programs, and Info.plist would lie at its top.\n"
        "Choose a folder of its own by --prefix, or the layout for shared folders by --component System.")
endif()
