// Stand-in for a header of macOS: the path of the running executable, terminator included. Where `size` is too
// small for it the result is -1, and `size` becomes what it takes.
#pragma once

#include <cstdint>

extern "C" int _NSGetExecutablePath(char* path, std::uint32_t* size);
