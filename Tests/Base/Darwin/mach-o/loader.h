// Stand-in for a header of macOS: what an executable file begins with. Only its address is ever used.
#pragma once

#include <cstdint>

struct mach_header_64 {
    std::uint32_t magic;
};
