# zig.cmake: CMake's toolchain file for Scripts/cross.
#
#   TIDEWELL_TARGET   processor-system, as the compiler calls them: aarch64-macos, x86_64-linux-musl
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TIDEWELL_TARGET)
string(REGEX MATCH "^[^-]+" CMAKE_SYSTEM_PROCESSOR ${TIDEWELL_TARGET})
set(target ${TIDEWELL_TARGET})
if(TIDEWELL_TARGET MATCHES "-macos$")
    set(CMAKE_SYSTEM_NAME Darwin)
    set(target ${TIDEWELL_TARGET}.${CMAKE_OSX_DEPLOYMENT_TARGET})
else()
    set(CMAKE_SYSTEM_NAME Linux)
endif()
set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/zig-c++ ${target})
set(CMAKE_AR llvm-ar)
set(CMAKE_RANLIB llvm-ranlib)
# Not every protection is there for every processor.
set(CMAKE_CXX_FLAGS_INIT -Wno-unused-command-line-argument)
# Its own libraries bring debug information that is ten times the program's size.
set(CMAKE_EXE_LINKER_FLAGS_INIT -s)
