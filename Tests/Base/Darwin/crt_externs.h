// Stand-in for a header of macOS: how the program was invoked, and what its executable file begins with.
#pragma once

struct mach_header_64;

extern "C" char*** _NSGetArgv();
extern "C" mach_header_64* _NSGetMachExecuteHeader();
