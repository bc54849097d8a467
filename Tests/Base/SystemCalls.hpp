// SystemCalls.hpp: the system calls that Platform makes, observed and answered by a test. Linux only: the linker
// puts these between the program's code and the C library, in the test programs that ask for it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace tidewell::test {

struct SystemCalls {
    /// Sends and writes move nothing, but report that they moved everything.
    bool areSwallowed = false;
    /// The size of the last send or write that was swallowed.
    std::size_t swallowed = 0;
    /// The user id to report instead of the real one.
    std::optional<uid_t> user;
    /// The list of users is missing: /etc/passwd cannot be opened.
    bool isWithoutUsers = false;
    /// The error with which macOS's option against the broken-pipe signal is refused. With 0 it is accepted, and
    /// a socket that has it raises no signal.
    int noSignalError = 0;
};

/// The instance that the wrapped calls consult.
SystemCalls& systemCalls();

}  // namespace tidewell::test
