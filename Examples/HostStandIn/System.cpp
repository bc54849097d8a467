#include "System.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace tidewell::standin {

void Descriptor::reset() noexcept {
    if (number_ >= 0) ::close(std::exchange(number_, -1));
}

std::mutex& inheritanceMutex() {
    static std::mutex mutex;
    return mutex;
}

void setUp(const Descriptor& descriptor, bool nonBlocking) {
    // Both ways for O_NONBLOCK: whether an accepted connection inherits it differs between systems.
    const int flags = ::fcntl(descriptor.get(), F_GETFL);
    const int wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (flags < 0 || ::fcntl(descriptor.get(), F_SETFD, FD_CLOEXEC) < 0 ||
        ::fcntl(descriptor.get(), F_SETFL, wanted) < 0) {
        throw std::system_error(errno, std::generic_category(), "fcntl");
    }
}

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) < 0) throw std::system_error(errno, std::generic_category(), "pipe");
    Pipe made{Descriptor(ends[0]), Descriptor(ends[1])};
    setUp(made.readEnd, false);
    setUp(made.writeEnd, false);
    return made;
}

StopSignal::StopSignal() : pipe_(makePipe()) {}

void StopSignal::raise() noexcept {
    const int keptErrno = errno;  // a signal handler must leave it as it was
    if (!raised_.exchange(true)) {
        // One byte that nobody ever reads: every poll sees it, now and later.
        [[maybe_unused]] const ssize_t written = ::write(pipe_.writeEnd.get(), "", 1);
    }
    errno = keptErrno;
}

Wait waitFor(std::span<pollfd> watched, Deadline deadline, const StopSignal& stop) {
    std::vector<pollfd> all(watched.begin(), watched.end());
    all.push_back({stop.descriptor(), POLLIN, 0});
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int timeout = static_cast<int>(std::clamp<decltype(left)>(left, 0, 60'000));
        const int count = ::poll(all.data(), static_cast<nfds_t>(all.size()), timeout);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw std::system_error(errno, std::generic_category(), "poll");
        if (all.back().revents != 0) return Wait::stopped;
        if (count > 0) {
            std::copy_n(all.begin(), watched.size(), watched.begin());
            return Wait::ready;
        }
        if (left <= 0) return Wait::timedOut;
    }
}

Wait waitFor(const Descriptor& descriptor, short events, Deadline deadline, const StopSignal& stop) {
    std::array<pollfd, 1> one{{{descriptor.get(), events, 0}}};
    return waitFor(one, deadline, stop);
}

}  // namespace tidewell::standin
