#include "Host/Worker.hpp"

#include <utility>

namespace tidewell {

Worker::~Worker() {
    if (!thread_.joinable()) return;
    enter(State::stopping);
    thread_.join();
}

void Worker::run(const std::function<void()>& job) {
    if (!start()) return job();
    job_ = &job;
    enter(State::working);
    waitWhile(State::working);
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

bool Worker::start() {
    if (thread_.joinable()) return true;
    try {
        thread_ = std::thread(&Worker::loop, this);
        return true;
    } catch (const std::exception&) {
        return false;  // too many threads, or no memory; the next job tries again
    }
}

void Worker::loop() {
    while (waitWhile(State::idle) == State::working) {
        try {
            (*job_)();
        } catch (...) {
            failure_ = std::current_exception();
        }
        enter(State::idle);
    }
}

void Worker::enter(State state) {
    {
        const std::lock_guard lock(mutex_);
        state_ = state;
    }
    changed_.notify_one();  // only one side ever waits
}

/// Returns the state that followed.
Worker::State Worker::waitWhile(State state) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return state_ != state; });
    return state_;
}

}  // namespace tidewell
