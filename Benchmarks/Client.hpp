// Client.hpp: a child program on two large pipes, as an MCP client starts it, with as little overhead as
// possible. Linux only.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::bench {

/// What to start: the program's path, or its name if PATH is to be searched, then its arguments. The program's
/// environment is `environment` and nothing else.
struct Command {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
};

class Client {
public:
    /// Starts the program, with `firstInput` already in its input pipe.
    explicit Client(const Command& command, std::string_view firstInput = {});
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    /// Calls finish() unless that has been done.
    ~Client();

    /// Ends the program's input, waits until it exits and returns how long it ran in all, in seconds.
    double finish();

    /// Writes requests, together at most what one pipe holds (a megabyte).
    void write(std::string_view requests) const;
    /// Reads until the input ends with a line feed, and returns the number of bytes. For one reply at a time.
    std::size_t readReply();
    /// Whether a reply begins within `seconds`. Ends the program if not.
    bool waitForOutput(int seconds);
    /// What the last readReply() or readReplies() read, if keep() had been called before.
    const std::string& kept() const noexcept { return kept_; }
    /// Keeps replies from now on.
    void keep() noexcept { keeps_ = true; }
    /// Waits until `size` bytes have gathered in the pipe, and only then reads them: replies to pipelined
    /// requests do not pay for waking a reader. `size` has to fit the pipe. False when more or fewer came.
    bool readReplies(std::size_t size);

    /// A line of /proc/PID/status in bytes: "VmRSS" is what is resident now, "VmHWM" its peak.
    std::size_t memory(std::string_view name) const;
    /// How long the program's threads have run so far, its system calls included, in seconds. Threads that
    /// have ended no longer count.
    double processorSeconds() const;

private:
    std::size_t readSome();

    pid_t id_ = -1;
    int input_ = -1;
    int output_ = -1;
    bool keeps_ = false;
    std::string kept_;
    std::vector<char> chunk_;
};

}  // namespace tidewell::bench
