// SystemCalls.hpp: what Platform asks the system for, seen and answered by a test. Linux only: the linker puts these
// between the program's code and the C library, in the test programs that ask for it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace tidewell::test {

struct SystemCalls {
    /// Sends and writes move nothing, and say that they moved everything.
    bool areSwallowed = false;
    /// The size of the last one that was swallowed.
    std::size_t swallowed = 0;
    /// Who the current user is, instead of who really is.
    std::optional<uid_t> user;
    /// Nobody says who the users are: /etc/passwd cannot be opened.
    bool isWithoutUsers = false;
    /// The error with which macOS's option against the broken-pipe signal is refused; 0: it is accepted, and a
    /// socket with it raises none.
    int noSignalError = 0;
};

/// The one that counts.
SystemCalls& systemCalls();

}  // namespace tidewell::test
