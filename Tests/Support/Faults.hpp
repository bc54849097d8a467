// Faults.hpp: system calls that fail on demand. Linux only: the linker puts these between the program's code and
// the C library (-Wl,--wrap=…), in the one test program that asks for it.
#pragma once

#include <climits>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

namespace tidewell::test {

/// The calls that the program makes, distinguished by their purpose.
enum class Call {
    // the client's side
    readInput,
    writeOutput,
    pollOutput,
    // the host app's side
    socket,
    connect,
    setsockopt,
    sendRequest,
    readReply,
    close,
    // the rest
    getentropy,
    readlink,
    open,
    readFile,
    madvise,
    none,
};

/// What a call does instead of its whole work.
struct Fault {
    int error = 0;           ///< fails with this errno
    int result = -1;         ///< and returns this
    std::size_t atMost = 0;  ///< or moves at most this many bytes
    int after = 0;           ///< how many calls succeed first
    int times = 1;           ///< how often in a row
};

/// Fails calls from its construction to its end. The client's descriptors are given at the start; a socket
/// created meanwhile is taken to lead to the host app. One at a time.
class Faults {
public:
    Faults(Call call, Fault fault, int input = -1, int output = -1);
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;
    ~Faults();

    /// How often the call was made, failed ones included.
    int calls() const;
};

/// Allocations of `bytes` or more are refused while one of these lives.
class LittleMemory {
public:
    explicit LittleMemory(std::size_t bytes);
    LittleMemory(const LittleMemory&) = delete;
    LittleMemory& operator=(const LittleMemory&) = delete;
    ~LittleMemory();
};

/// Counts the program's allocations from its construction to its end and refuses those from number `first` on, up
/// to number `last`; 0 is the first of all. One at a time.
class Allocations {
public:
    explicit Allocations(int first = never, int last = never);
    Allocations(const Allocations&) = delete;
    Allocations& operator=(const Allocations&) = delete;
    ~Allocations();

    static constexpr int never = INT_MAX;
    /// How many there were, refused ones included.
    int count() const;
};

/// Exempts this thread's allocations while one of these lives: they neither count nor fail. For the host app's
/// side.
class SparedThread {
public:
    SparedThread();
    SparedThread(const SparedThread&) = delete;
    SparedThread& operator=(const SparedThread&) = delete;
    ~SparedThread();
};

}  // namespace tidewell::test
