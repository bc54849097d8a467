# musl.cmake: CMake's toolchain file for the preset "musl": clang and LLVM's libraries, linked with the C library musl
# instead of glibc. Debian has musl's headers and objects, but no C++ compiler that uses them.
set(prefix ${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-musl)
set(llvm /usr/lib/llvm-16)
set(CMAKE_CXX_COMPILER clang++-16)

# Debian built LLVM's libraries for glibc. musl lays out what they share the same way, and lacks only these two
# functions, with which they say why they are about to abort.
set(glibc_only --defsym=__fprintf_chk=abort,--defsym=__vfprintf_chk=abort)

function(ask result)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${ARGN} OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND_ERROR_IS_FATAL ANY)
    set(${result} ${answer} PARENT_SCOPE)
endfunction()
ask(begin -print-file-name=crtbeginS.o)
ask(end -print-file-name=crtendS.o)
ask(runtime -print-libgcc-file-name)

set(CMAKE_CXX_FLAGS_INIT
    "-nostdlibinc -nostdinc++ -isystem ${llvm}/include/c++/v1 -isystem /usr/include/${prefix} -D_LIBCPP_HAS_MUSL_LIBC")
string(JOIN " " CMAKE_EXE_LINKER_FLAGS_INIT
    -nostdlib -Wno-unused-command-line-argument -Wl,${glibc_only}
    /usr/lib/${prefix}/rcrt1.o /usr/lib/${prefix}/crti.o ${begin})
string(JOIN " " CMAKE_CXX_STANDARD_LIBRARIES_INIT
    ${llvm}/lib/libc++.a ${llvm}/lib/libc++abi.a ${llvm}/lib/libunwind.a /usr/lib/${prefix}/libc.a ${runtime}
    ${end} /usr/lib/${prefix}/crtn.o)
