// System.hpp: the few things the stand-in asks of POSIX, each closed, bounded and interruptible.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <span>
#include <utility>

#include <poll.h>

namespace tidewell::standin {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

/// A file descriptor that closes itself. Movable; empty when it holds -1.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) noexcept : number_(number) {}
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

/// Held while a descriptor is created and marked close-on-exec, and while a program is started. Without it a
/// git started by one thread could inherit the connection another thread is just accepting, and keep it open.
std::mutex& inheritanceMutex();

/// Marks a descriptor close-on-exec and, on request, non-blocking. Throws std::system_error.
void setUp(const Descriptor& descriptor, bool nonBlocking);

struct Pipe {
    Descriptor readEnd, writeEnd;
};

/// A close-on-exec pipe. Throws std::system_error. With other threads about, hold `inheritanceMutex`.
Pipe makePipe();

/// "Everybody stop": raised once, seen by every thread, never lowered.
class StopSignal {
public:
    StopSignal();           ///< Throws std::system_error.
    void raise() noexcept;  ///< May be called from a signal handler and from any thread.
    bool raised() const noexcept { return raised_; }
    int descriptor() const noexcept { return pipe_.readEnd.get(); }  ///< Readable from then on.

private:
    static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler must not take a lock");
    Pipe pipe_;
    std::atomic<bool> raised_ = false;
};

enum class Wait { ready, timedOut, stopped };

/// Waits until one of `watched` is ready (its `revents` say which), the deadline passes or the stop signal is
/// raised; the stop signal wins. Throws std::system_error.
Wait waitFor(std::span<pollfd> watched, Deadline deadline, const StopSignal& stop);

/// The same for one descriptor; `events` as for poll(2).
Wait waitFor(const Descriptor& descriptor, short events, Deadline deadline, const StopSignal& stop);

}  // namespace tidewell::standin
