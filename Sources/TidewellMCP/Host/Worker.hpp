// Worker.hpp: one thread for blocking work, started on first use and kept as long as its owner.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace tidewell {

/// Runs one job at a time for one caller at a time. The hand-off is a state under a mutex, signalled by a
/// condition variable: of the simple ways, the one that stays fast on a busy machine (Documentation/Design.md
/// has the figures). Destroyed only while idle.
class Worker {
public:
    Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker();

    /// Runs `job` on the worker's thread and waits for its end; what it throws is thrown here. If the system
    /// refuses a thread, the job runs on the caller's, which would only have waited. The stack has the system's
    /// default size, 128 KiB with musl; a call to the host app takes 16 KiB of it, however deep or long the reply.
    void run(const std::function<void()>& job);

private:
    enum class State : std::uint8_t { idle, working, stopping };

    void loop();
    bool start();
    void enter(State state);
    State waitWhile(State state);

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::idle;                   // guarded by mutex_
    const std::function<void()>* job_ = nullptr;  // valid while working
    std::exception_ptr failure_;                  // of the job that ended last
    std::thread thread_;
};

}  // namespace tidewell
