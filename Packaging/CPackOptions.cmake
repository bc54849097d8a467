# CPackOptions.cmake: what depends on the kind of package, read anew for each.
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_COMPONENTS_ALL System Debian)
else()
    set(CPACK_COMPONENTS_ALL Program)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
endif()
