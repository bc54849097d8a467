// Client.hpp: a child program at two large pipes, as an MCP client has it, and as little work beside it as
// possible. Linux only.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::bench {

/// What to start: the program's path first, or its name if it is to be searched for, then its arguments; the environment is `environment` and no more.
struct Command {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
};

class Client {
public:
    /// Starts the program. What `firstInput` holds is in the pipe before.
    explicit Client(const Command& command, std::string_view firstInput = {});
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    /// finish(), unless that was done.
    ~Client();

    /// Ends the program's input, waits for its end and returns how long it has run in all, in seconds.
    double finish();

    /// Writes requests, together at most what one pipe holds (a megabyte).
    void write(std::string_view requests) const;
    /// Reads until what came ends with a line feed, and returns how many bytes that were. For one reply at a
    /// time.
    std::size_t readReply();
    /// Whether a reply begins within `seconds`. Ends the program if not.
    bool waitForOutput(int seconds);
    /// What the last readReply() or readReplies() read, when it was started with `keep`.
    const std::string& kept() const noexcept { return kept_; }
    /// Keeps replies from now on.
    void keep() noexcept { keeps_ = true; }
    /// Waits until `size` bytes have gathered in the pipe, and only then reads them: replies to pipelined
    /// requests do not pay for waking a reader. `size` has to fit the pipe. False when more or fewer came.
    bool readReplies(std::size_t size);

    /// A line of /proc/PID/status in bytes: "VmRSS" is what is resident now, "VmHWM" the most it has ever
    /// been.
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
