#include "AgentSocket.hpp"

#include "Tools.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tidewell::standin {

namespace {

constexpr int waitingClients = 64;
constexpr std::chrono::milliseconds pause{100};  ///< between looks at exchanges, and after a failure

[[noreturn]] void fail(const std::string& doing) {
    throw std::runtime_error(doing + ": " + std::generic_category().message(errno));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    constexpr std::size_t maximumPathBytes = sizeof address.sun_path - 1;  // one for the closing NUL
    if (path.size() > maximumPathBytes) {
        throw std::runtime_error("the socket path is too long: it has " + std::to_string(path.size()) +
                                 " bytes, and a socket address holds at most " +
                                 std::to_string(maximumPathBytes));
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

Descriptor makeSocket() {
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!made) fail("cannot create a socket");
    return made;
}

/// Removes the socket that a killed stand-in left at the path; refuses to touch anything else.
void clearStaleSocket(const std::string& path, const sockaddr_un& address) {
    struct stat facts {};
    if (::lstat(path.c_str(), &facts) < 0) {
        if (errno == ENOENT) return;
        fail("cannot look at " + path);
    }
    if (!S_ISSOCK(facts.st_mode))
        throw std::runtime_error(path + " exists and is not a socket; it is left alone");

    const Descriptor probe = makeSocket();
    ::fcntl(probe.get(), F_SETFL, O_NONBLOCK);  // a full queue must not block us
    const int result = ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    // Only a refusal proves that nobody listens; a full queue or another owner proves the opposite.
    if (result == 0 || errno != ECONNREFUSED) {
        throw std::runtime_error(path + " is already served by another process");
    }
    if (::unlink(path.c_str()) < 0) fail("cannot remove the stale socket " + path);
}

/// The line a client sends, or nothing when nobody waits for an answer.
std::optional<std::string> readLine(const Descriptor& client, Deadline deadline) {
    std::string line;
    std::array<char, 4096> chunk;
    for (;;) {
        waitFor(client, For::reading, deadline);
        const ssize_t count = ::read(client.get(), chunk.data(), chunk.size());
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

void exchange(const Descriptor& client, const Root& root) {
    const Deadline deadline = Clock::now() + exchangeTimeLimit;
    std::string reply;
    try {
        const std::optional<std::string> line = readLine(client, deadline);
        if (!line) return;
        reply = replyTo(*line, root, deadline);
    } catch (const HostError& error) {
        reply = replyWith(error);
    }
    for (std::string_view rest = reply; !rest.empty();) {
        const ssize_t count = ::send(client.get(), rest.data(), rest.size(), MSG_DONTWAIT);
        if (count < 0 && errno == EAGAIN)
            waitFor(client, For::writing, deadline);
        else if (count < 0)
            return;
        else
            rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

AgentSocket::AgentSocket(std::string path) : path_(std::move(path)) {
    const sockaddr_un address = addressOf(path_);
    clearStaleSocket(path_, address);
    Descriptor made = makeSocket();

    // By umask and not by chmod afterwards: in between, anybody could connect.
    const mode_t before = ::umask(0177);
    const int bound = ::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(before);
    if (bound < 0) fail("cannot create the socket " + path_);

    if (::listen(made.get(), waitingClients) < 0) {
        ::unlink(path_.c_str());
        fail("cannot listen at " + path_);
    }
    ::fcntl(made.get(), F_SETFL, O_NONBLOCK);  // a client may be gone before it is accepted
    socket_ = std::move(made);
}

void AgentSocket::serve(const Root& root) {
    std::vector<pid_t> exchanges;
    while (!stopRequested()) {
        std::erase_if(exchanges, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
        const Descriptor none;
        const bool full = exchanges.size() >= maximumExchanges;
        const Deadline nextLook = exchanges.empty() ? Deadline::max() : Clock::now() + pause;
        if (!waitOnce(full ? none : socket_, For::reading, nextLook)) continue;

        const Descriptor client(::accept(socket_.get(), nullptr, nullptr));
        const pid_t pid = client ? ::fork() : -1;
        if (pid == 0) {
            socket_.reset();
            ::fcntl(client.get(), F_SETFL, 0);  // on some systems it inherits the listener's O_NONBLOCK
            try {
                exchange(client, root);
            } catch (const std::exception&) {
                // The client is too slow to take the reply, or memory ran out: it gets none.
            }
            ::_exit(0);
        }
        if (pid > 0)
            exchanges.push_back(pid);
        else
            waitOnce({}, For::reading, Clock::now() + pause);  // out of descriptors or processes
    }
    withdraw();
    for (const pid_t pid : exchanges) ::waitpid(pid, nullptr, 0);
}

void AgentSocket::withdraw() noexcept {
    if (!socket_) return;
    ::unlink(path_.c_str());
    socket_.reset();
}

}  // namespace tidewell::standin
