// Platform.hpp: what differs between systems, in one file for each (PlatformLinux.cpp, PlatformDarwin.cpp).
// Nothing else in the program asks which system it runs on.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tidewell::Platform {

/// The path of the running executable as the system reports it, else as the program was invoked; nothing when
/// neither is known.
std::optional<std::string> executablePath();

/// The current user's home directory as the system reports it; "/" when it knows none.
std::string homeDirectory();

/// The property list embedded in the executable; empty if there is none, or the system has no such thing.
/// Lives as long as the process.
std::string_view bundleInformation();

/// The room for a path in a Unix-domain socket's address, in bytes. A NUL ends the path, so the longest one
/// is a byte shorter.
extern const std::size_t socketPathCapacity;

/// A new Unix-domain stream socket on which send() raises no broken-pipe signal; -1 and errno on failure. The
/// caller owns it.
int openStreamSocket();

/// The most bytes that one call asks the system to take. macOS refuses more than INT_MAX outright.
inline constexpr std::size_t largestTransfer = std::size_t{1} << 30;

/// One send on a socket from openStreamSocket(). Returns the bytes sent, at most `largestTransfer`, or
/// -1 and errno (EPIPE when the other side has hung up; never the signal).
ssize_t sendBytes(int socket, std::string_view bytes);

/// One write to any descriptor. Returns the bytes written, at most `largestTransfer`, or -1 and errno.
ssize_t writeBytes(int descriptor, std::string_view bytes);

/// Makes malloc() return large blocks to the system as soon as they are freed. Called once, at the start.
void configureMemory() noexcept;

/// Asks for huge pages behind a block of `size` bytes from malloc(), about to be filled: without them, a
/// message of megabytes costs more time in page faults than in reading it. Skips small blocks.
void preferLargePages(void* block, std::size_t size) noexcept;

/// The double nearest to a number in JSON's form, read by the C++ library, several times as fast as by strtod(); nothing
/// where that library cannot, or the number is beyond a double's range.
std::optional<double> parseDouble(std::string_view text);

/// Fills `bytes` (at most 256) from the system's random source; false on failure.
bool fillRandom(std::span<unsigned char> bytes);

}  // namespace tidewell::Platform
