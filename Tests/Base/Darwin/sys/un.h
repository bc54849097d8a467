// Stand-in for a header of macOS: a socket's address, with macOS's size of its path.
#pragma once

#include <cstdint>

struct sockaddr_un {
    std::uint8_t sun_len;
    std::uint8_t sun_family;
    char sun_path[104];
};
