# Hardening.cmake: how the program is protected, and how it is linked.
#
# A reader checks it on the finished program: `readelf -hlWd` shows type DYN (position-independent), GNU_RELRO and
# a GNU_STACK that is not executable; its symbols include __stack_chk_fail. Debug builds go without, because
# fortified calls need an optimiser, and sanitized ones too, because the sanitizers bring checks of their own.
add_library(TidewellHardening INTERFACE)
target_compile_options(TidewellHardening INTERFACE -fPIE)
if(TIDEWELL_HARDENING)
    target_compile_options(TidewellHardening INTERFACE
        -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -ffunction-sections -fdata-sections)
endif()
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(TidewellHardening INTERFACE $<IF:$<BOOL:${TIDEWELL_STATIC}>,-static-pie,-pie>)
    if(TIDEWELL_HARDENING)
        target_compile_options(TidewellHardening INTERFACE -fstack-clash-protection)
        if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
            target_compile_options(TidewellHardening INTERFACE -fcf-protection)
        endif()
        target_link_options(TidewellHardening INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack,--gc-sections)
    endif()
endif()
