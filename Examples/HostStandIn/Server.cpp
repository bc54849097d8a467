#include "Server.hpp"

#include "Tools.hpp"

#include <array>
#include <cerrno>
#include <memory>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace tidewell::standin {

namespace {

constexpr std::chrono::milliseconds pauseAfterFailedAccept{100};

bool isTransient(int error) { return error == EINTR || error == EAGAIN; }

/// The line a client sends; nothing when there is nobody to answer. Throws HostError "invalid_request".
std::optional<std::string> readLine(const Descriptor& client, const StopSignal& stop) {
    const Deadline deadline =
        Clock::now() + lineTimeLimit;  // for the whole line: a drip of bytes does not renew it
    std::string line;
    std::array<char, 4096> chunk;
    for (;;) {
        switch (waitFor(client, POLLIN, deadline, stop)) {
        case Wait::ready: break;
        case Wait::stopped: return std::nullopt;
        case Wait::timedOut: throw HostError("invalid_request", "no complete line arrived in time");
        }
        const ssize_t count = ::read(client.get(), chunk.data(), chunk.size());
        if (count < 0 && isTransient(errno)) continue;
        if (count < 0 || (count == 0 && line.empty())) return std::nullopt;
        if (count == 0) throw HostError("invalid_request", "the request ended without a line feed");

        const std::string_view arrived(chunk.data(), static_cast<std::size_t>(count));
        const std::size_t end = arrived.find('\n');
        line += arrived.substr(0, end);
        if (line.size() > maximumLineBytes) {
            throw HostError("invalid_request",
                            "the request is longer than " + std::to_string(maximumLineBytes) + " bytes");
        }
        if (end != std::string_view::npos) return line;
    }
}

void writeReply(const Descriptor& client, std::string_view bytes, const StopSignal& stop) {
    const Deadline deadline = Clock::now() + replyTimeLimit;
    while (!bytes.empty()) {
        const ssize_t count = ::write(client.get(), bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (!isTransient(errno) || waitFor(client, POLLOUT, deadline, stop) != Wait::ready) {
            return;  // gone, too slow, or we are to stop: there is nobody left to tell
        }
    }
}

}  // namespace

void Server::run() {
    while (waitFor(socket_.descriptor(), POLLIN, Deadline::max(), stop_) == Wait::ready) {
        try {
            if (Descriptor client = socket_.accept()) admit(std::move(client));
        } catch (const std::system_error&) {
            // Out of descriptors or threads. Those in service will free some; until then do not spin.
            waitFor({}, Clock::now() + pauseAfterFailedAccept, stop_);
        }
    }
    socket_.withdraw();
    std::unique_lock lock(mutex_);
    clientGone_.wait(lock, [this] { return clients_ == 0; });
}

void Server::admit(Descriptor client) {
    {
        const std::lock_guard lock(mutex_);
        if (clients_ == maximumClients) {
            writeReply(client, replyWith(HostError("busy", "too many clients at once", "try again")), stop_);
            return;
        }
        ++clients_;
    }
    try {
        std::thread([this, client = std::move(client)]() mutable {
            serve(client);
            client.reset();  // before the count falls: when run() returns, every connection is closed
            forgetClient();
        }).detach();
    } catch (...) {
        forgetClient();
        throw;
    }
}

void Server::serve(const Descriptor& client) const noexcept {
    try {
        std::string reply;
        try {
            const std::optional<std::string> line = readLine(client, stop_);
            if (!line) return;
            reply = replyTo(*line, root_, stop_);
        } catch (const HostError& error) {
            reply = replyWith(error);
        }
        writeReply(client, reply, stop_);
    } catch (const std::exception&) {
        // Out of memory, or poll failed: this one client goes without a reply.
    }
}

void Server::forgetClient() noexcept {
    const std::lock_guard lock(mutex_);
    --clients_;
    clientGone_.notify_all();  // under the lock: once the count is seen to be zero, the server may be gone
}

}  // namespace tidewell::standin
