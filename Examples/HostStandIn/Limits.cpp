#include "Limits.hpp"

#include <algorithm>
#include <array>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace tidewell::standin {

namespace {

// One byte that nobody reads: every poll sees it, now and later, in forked processes too. A global, because a
// signal handler can reach nothing else.
std::array<int, 2> stopPipe{-1, -1};

}  // namespace

Descriptor::Descriptor(int number) : number_(number) {
    if (number_ >= 0) ::fcntl(number_, F_SETFD, FD_CLOEXEC);
}

void Descriptor::reset() noexcept {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
}

void noticeStopSignals() {
    if (::pipe(stopPipe.data()) < 0) throw std::runtime_error("cannot create a pipe");
    for (const int end : stopPipe) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    struct sigaction action {};
    action.sa_handler = [](int) { [[maybe_unused]] const ssize_t count = ::write(stopPipe[1], "", 1); };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    (void)std::signal(SIGCHLD, SIG_DFL);  // had our parent ignored it, git's exit code would be lost
}

bool stopRequested() {
    pollfd watched{stopPipe[0], POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
}

bool waitOnce(const Descriptor& descriptor, For purpose, Deadline deadline) {
    constexpr Clock::duration longest = std::chrono::hours(1);
    const Clock::duration left = std::clamp(deadline - Clock::now(), Clock::duration::zero(), longest);
    const auto limit = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    const short events = purpose == For::reading ? POLLIN : POLLOUT;
    std::array<pollfd, 2> watched{
        {{descriptor.get(), events, 0}, {stopPipe[0], POLLIN, 0}}};  // -1 is skipped
    return ::poll(watched.data(), watched.size(), static_cast<int>(limit)) > 0 && watched[1].revents == 0;
}

void checkTime(Deadline deadline) {
    if (stopRequested()) throw HostError("stopping", "the stand-in is being stopped");
    if (Clock::now() >= deadline) throw HostError("timeout", "the request took too long and was given up");
}

void waitFor(const Descriptor& descriptor, For purpose, Deadline deadline) {
    while (!waitOnce(descriptor, purpose, deadline)) checkTime(deadline);
}

}  // namespace tidewell::standin
