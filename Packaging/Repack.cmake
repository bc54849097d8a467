# Repack.cmake: runs after each package is made, and takes out of it what depends on who made it, and where.
#
# CPack writes the user's own name into archives, his umask into the modes of folders, and into a Debian package's
# Installed-Size what the folders of the file system at hand take up, with linked files counted twice. Times are
# SOURCE_DATE_EPOCH, where that is set.
cmake_minimum_required(VERSION 3.25)  # for the policies: this runs on its own

# What a package installed takes up, in KiB, as Debian counts: files rounded up, 1 for all else.
function(installed_size folder result)
    file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE ${folder} ${folder}/*)
    set(size 0)
    foreach(entry IN LISTS entries)
        if(entry MATCHES "^DEBIAN(/|$)")
            continue()
        endif()
        set(kibibytes 1)
        if(NOT IS_SYMLINK ${folder}/${entry} AND NOT IS_DIRECTORY ${folder}/${entry})
            file(SIZE ${folder}/${entry} bytes)
            math(EXPR kibibytes "(${bytes} + 1023) / 1024")
        endif()
        math(EXPR size "${size} + ${kibibytes}")
    endforeach()
    set(${result} ${size} PARENT_SCOPE)
endfunction()

function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

function(repack_debian package)
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/repacked)
    file(REMOVE_RECURSE ${folder})
    run(dpkg-deb --raw-extract ${package} ${folder})
    run(chmod -R u=rwX,go=rX ${folder})
    installed_size(${folder} size)
    file(READ ${folder}/DEBIAN/control control)
    string(REGEX REPLACE "\nInstalled-Size:[^\n]*" "\nInstalled-Size: ${size}" control "${control}")
    file(WRITE ${folder}/DEBIAN/control "${control}")
    set(ENV{DPKG_DEB_THREADS_MAX} 1)  # xz cuts the data otherwise where there are more processors
    run(dpkg-deb --root-owner-group -Zxz --build ${folder} ${package})
endfunction()

function(repack_archive package)
    find_program(tar NAMES gtar tar REQUIRED)
    execute_process(COMMAND ${tar} --version OUTPUT_VARIABLE version)
    if(NOT version MATCHES "GNU")
        message(STATUS "Without GNU tar, the archive names the user who made it.")
        return()
    endif()
    set(time)
    if(DEFINED ENV{SOURCE_DATE_EPOCH})
        set(time --mtime=@$ENV{SOURCE_DATE_EPOCH})
    endif()
    execute_process(
        COMMAND ${tar} --format=ustar --sort=name --owner=root:0 --group=root:0 --mode=u=rwX,go=rX ${time}
            -C ${CPACK_TEMPORARY_DIRECTORY}/Program -cf - ${CPACK_PACKAGE_FILE_NAME}
        COMMAND gzip -9n
        OUTPUT_FILE ${package} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
    if(package MATCHES "[.]deb$")
        repack_debian(${package})
    else()
        repack_archive(${package})
    endif()
endforeach()
