// Worker.hpp: one thread for blocking work, started on first use and kept until the end of the process.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace tidewell {

/// Carries out one job at a time for one caller at a time. The hand-off is a state under a mutex, told by a
/// condition variable: of the simple means the one that stays quick on a busy machine
/// (Documentation/Design.md has the figures). Destroyed only while idle.
class Worker {
public:
    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker();

    /// Runs `job` on the worker's thread and waits for its end; what it throws is thrown here. Where the
    /// system refuses a thread, the job runs on the caller's: it blocks the caller just as well.
    void run(const std::function<void()>& job);

private:
    enum class State : std::uint8_t { idle, working, stopping };

    void loop();
    bool start();
    void enter(State state);
    State waitWhile(State state);

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::idle;                   // under the mutex
    const std::function<void()>* job_ = nullptr;  // valid while working
    std::exception_ptr failure_;                  // of the job that ended last
    std::thread thread_;
};

}  // namespace tidewell
