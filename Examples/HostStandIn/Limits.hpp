// Limits.hpp: what one exchange may use: a deadline for all of it, and an end when the stand-in is stopped.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

namespace tidewell::standin {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

/// A failure that is reported to the client: {"code", "message", "hint"}.
class HostError : public std::runtime_error {
public:
    HostError(std::string code, const std::string& message, std::string hint = {})
        : std::runtime_error(message), code_(std::move(code)), hint_(std::move(hint)) {}
    const std::string& code() const noexcept { return code_; }
    const std::string& hint() const noexcept { return hint_; }  ///< Empty: none.

private:
    std::string code_, hint_;
};

/// A file descriptor that closes itself and that no started program inherits. Empty when it holds -1.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number);
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const noexcept { return number_; }
    explicit operator bool() const noexcept { return number_ >= 0; }
    void reset() noexcept;

private:
    int number_ = -1;
};

/// From now on SIGINT and SIGTERM stop this process and those that it forks later: every wait ends.
/// Throws std::runtime_error.
void noticeStopSignals();
bool stopRequested();

enum class For { reading, writing };

/// Waits once for the descriptor, which may be empty; false at the deadline, after a signal and when stopping.
bool waitOnce(const Descriptor& descriptor, For purpose, Deadline deadline);

/// Throws HostError "timeout" or "stopping" when there is no reason to go on.
void checkTime(Deadline deadline);

/// Waits until the descriptor is ready. Throws as `checkTime` does.
void waitFor(const Descriptor& descriptor, For purpose, Deadline deadline);

}  // namespace tidewell::standin
