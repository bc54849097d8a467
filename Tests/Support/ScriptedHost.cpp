#include "ScriptedHost.hpp"

#include "ExactJSON.hpp"
#include "Judge.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <regex>
#include <stdexcept>
#include <utility>

namespace tidewell::test {

std::string HostConnection::readEnvelope() const {
    std::string line;
    std::array<char, 65536> chunk;  // not cleared: benchmarks would measure that
    for (;;) {
        const ssize_t count = ::recv(descriptor_, chunk.data(), chunk.size(), 0);
        if (count <= 0) return line;
        const std::string_view bytes(chunk.data(), static_cast<std::size_t>(count));
        const std::size_t end = bytes.find('\n');
        line += bytes.substr(0, end);
        if (end != bytes.npos) return line;
    }
}

void HostConnection::write(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void HostConnection::writeInPieces(std::string_view bytes, std::size_t size) const {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size()))) write(bytes.substr(0, size));
}

int socketAt(const std::string& path, AddressCall call, int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() > sizeof address.sun_path) throw std::runtime_error("socket path too long");
    path.copy(address.sun_path, path.size());
    const int descriptor = ::socket(AF_UNIX, type, 0);
    if (call(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return descriptor;
    ::close(descriptor);
    throw std::runtime_error("no socket at " + path);
}

ScriptedHost::ScriptedHost(std::string path)
    : socketPath_(path.empty() ? folder_ / "host.sock" : std::move(path)),
      listener_(socketAt(socketPath_, ::bind)),
      otherwise_([this](const HostConnection& connection) {
          readAndRecord(connection);
          connection.write("{\"ok\":true}\n");
      }) {
    if (::listen(listener_, 16) != 0) throw std::runtime_error("cannot listen at " + socketPath_);
    thread_ = std::thread(&ScriptedHost::serve, this);
}

void ScriptedHost::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

ScriptedHost::~ScriptedHost() {
    stop();
    ::close(listener_);
    ::unlink(socketPath_.c_str());
}

void ScriptedHost::serve() {
    while (!stopping_) {
        // In short waits, because nothing portable interrupts an accept.
        pollfd waiting{.fd = listener_, .events = POLLIN, .revents = 0};
        if (::poll(&waiting, 1, 20) <= 0) continue;
        const int descriptor = ::accept(listener_, nullptr, nullptr);
        if (descriptor < 0) continue;
        ++connections_;
        Behaviour behaviour;
        {
            const std::lock_guard lock(mutex_);
            if (behaviours_.empty()) {
                behaviour = otherwise_;
            } else {
                behaviour = std::move(behaviours_.front());
                behaviours_.pop_front();
            }
        }
        behaviour(HostConnection(descriptor));
        ::close(descriptor);
    }
}

std::string ScriptedHost::readAndRecord(const HostConnection& connection) {
    std::string line = connection.readEnvelope();
    const std::lock_guard lock(mutex_);
    received_.push_back(line);
    return line;
}

std::vector<nlohmann::json> ScriptedHost::received() const {
    const std::lock_guard lock(mutex_);
    std::vector<nlohmann::json> envelopes;
    for (const std::string& line : received_) envelopes.push_back(judgeWritten(line));
    return envelopes;
}

std::vector<std::string> ScriptedHost::exactEnvelopes() const {
    static const std::regex requestId(
        R"(,"requestId":"[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")");
    const std::lock_guard lock(mutex_);
    std::vector<std::string> envelopes;
    for (const std::string& line : received_) {
        const std::string envelope = exact(line);
        envelopes.push_back(
            std::regex_replace(envelope, requestId, "", std::regex_constants::format_first_only));
        if (envelopes.back().size() == envelope.size()) throw std::runtime_error("no request id: " + line);
    }
    return envelopes;
}

bool ScriptedHost::isAnotherWaiting(int milliseconds) const {
    pollfd waiting{.fd = listener_, .events = POLLIN, .revents = 0};
    return ::poll(&waiting, 1, milliseconds) > 0;
}

ScriptedHost& ScriptedHost::then(Behaviour behaviour) {
    const std::lock_guard lock(mutex_);
    behaviours_.push_back(std::move(behaviour));
    return *this;
}

ScriptedHost& ScriptedHost::otherwise(Behaviour behaviour) {
    const std::lock_guard lock(mutex_);
    otherwise_ = std::move(behaviour);
    return *this;
}

ScriptedHost& ScriptedHost::closesAtOnce() {
    return then([](const HostConnection&) {});
}

ScriptedHost& ScriptedHost::neverReads() {
    return then([this](const HostConnection& connection) {
        // Until the server hangs up or the test ends; a poll for errors alone reads nothing.
        pollfd watched{.fd = connection.descriptor(), .events = 0, .revents = 0};
        while (!stopping_ && ::poll(&watched, 1, 20) == 0) {
        }
    });
}

ScriptedHost& ScriptedHost::closesUnanswered() {
    return then([this](const HostConnection& connection) { readAndRecord(connection); });
}

ScriptedHost& ScriptedHost::repliesWith(std::string bytes) {
    return then([this, bytes = std::move(bytes)](const HostConnection& connection) {
        readAndRecord(connection);
        connection.write(bytes);
    });
}

ScriptedHost& ScriptedHost::replies(std::string text) { return repliesWith(std::move(text) + '\n'); }

ScriptedHost& ScriptedHost::repliesWithoutLineFeed(std::string text) { return repliesWith(std::move(text)); }

ScriptedHost& ScriptedHost::repliesInPieces(std::string text, std::size_t pieceSize) {
    return then([this, text = std::move(text) + '\n', pieceSize](const HostConnection& connection) {
        readAndRecord(connection);
        connection.writeInPieces(text, pieceSize);
    });
}

ScriptedHost& ScriptedHost::repliesInSingleBytes(std::string text) {
    return repliesInPieces(std::move(text), 1);
}

ScriptedHost& ScriptedHost::repliesSlowly(std::string text, int milliseconds) {
    return then([this, text = std::move(text) + '\n', milliseconds](const HostConnection& connection) {
        readAndRecord(connection);
        for (const char byte : text) {
            std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
            connection.write({&byte, 1});
        }
    });
}

ScriptedHost& ScriptedHost::staysSilent() {
    return then([this](const HostConnection& connection) {
        readAndRecord(connection);
        pollfd watched{.fd = connection.descriptor(), .events = POLLIN, .revents = 0};
        while (!stopping_ && ::poll(&watched, 1, 20) == 0) {
        }
    });
}

ScriptedHost& ScriptedHost::does(std::string_view name, std::string text) {
    if (name == "closes-at-once") return closesAtOnce();
    if (name == "closes-unanswered") return closesUnanswered();
    if (name == "replies") return replies(std::move(text));
    if (name == "replies-without-line-feed") return repliesWithoutLineFeed(std::move(text));
    if (name == "replies-in-single-bytes") return repliesInSingleBytes(std::move(text));
    if (name == "replies-slowly") return repliesSlowly(std::move(text), 2);
    throw std::runtime_error("the scripted host knows no '" + std::string(name) + "'");
}

}  // namespace tidewell::test
