#include "Worker.hpp"

#include <system_error>
#include <utility>

namespace tidewell {

Worker::~Worker() {
    if (!thread_.joinable()) return;
    state_ = stopping;
    state_.notify_one();
    thread_.join();
}

void Worker::run(const std::function<void()>& job) {
    if (!start()) return job();
    job_ = &job;
    state_ = working;
    state_.notify_one();
    state_.wait(working);
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

bool Worker::start() {
    if (thread_.joinable()) return true;
    try {
        thread_ = std::thread(&Worker::loop, this);
        return true;
    } catch (const std::system_error&) {
        return false;  // too many threads just now; the next job asks again
    }
}

void Worker::loop() {
    for (;;) {
        state_.wait(idle);
        if (state_ == stopping) return;
        try {
            (*job_)();
        } catch (...) {
            failure_ = std::current_exception();
        }
        state_ = idle;
        state_.notify_one();
    }
}

}  // namespace tidewell
