// Stand-in for a header of macOS: the system's own, and the option that Linux lacks, under macOS's number.
#pragma once

#include_next <sys/socket.h>

#define SO_NOSIGPIPE 0x1022
