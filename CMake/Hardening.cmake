# Hardening.cmake: how the released program is protected, and how it is linked. Release builds only: the
# sanitizers bring their own checks, and fortified calls would hide from them.
#
# A reader checks it on the finished program: `readelf -hlWd` shows type DYN (position-independent), GNU_RELRO and
# a GNU_STACK that is not executable; its symbols include __stack_chk_fail.
add_library(TidewellHardening INTERFACE)
target_compile_options(TidewellHardening INTERFACE -fPIE $<$<CONFIG:Release>:
    -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -ffunction-sections -fdata-sections>)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_compile_options(TidewellHardening INTERFACE $<$<CONFIG:Release>:-fstack-clash-protection>)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
        target_compile_options(TidewellHardening INTERFACE $<$<CONFIG:Release>:-fcf-protection>)
    endif()
    target_link_options(TidewellHardening INTERFACE
        $<IF:$<BOOL:${TIDEWELL_STATIC}>,-static-pie,-pie>
        $<$<CONFIG:Release>:LINKER:-z,relro,-z,now,-z,noexecstack,--gc-sections>)
endif()
