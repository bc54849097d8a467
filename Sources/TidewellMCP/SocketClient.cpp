#include "SocketClient.hpp"

#include "ByteBuffer.hpp"
#include "LineBuffer.hpp"
#include "MCPError.hpp"
#include "Platform.hpp"
#include "UTF8.hpp"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

namespace tidewell {

namespace {

/// A random (version 4) UUID, RFC 4122, in upper case.
std::string randomUUID() {
    std::array<unsigned char, 16> bytes{};
    if (!Platform::fillRandom(bytes)) throw MCPError::internalError("could not make a request id");
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (at == 4 || at == 6 || at == 8 || at == 10) text.push_back('-');
        text.push_back(digits[bytes[at] >> 4]);
        text.push_back(digits[bytes[at] & 0x0F]);
    }
    return text;
}

/// Nothing when all bytes went out, else the error number at that moment.
std::optional<int> writeAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = Platform::sendBytes(socket, bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return std::nullopt;
}

/// The first line that arrives on `socket`, or nothing: end of stream, time-out and error all mean that no
/// complete reply came. Only a line feed makes a reply complete.
std::optional<std::string_view> readLine(int socket, LineBuffer& received) {
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = ::read(socket, chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return std::nullopt;
        received.append({chunk.data(), static_cast<std::size_t>(count)});
        if (const auto line = received.nextLine()) return line;
    }
}

}  // namespace

std::string socketPathDefault() {
    const char* const configured = std::getenv("TIDEWELL_SOCKET_PATH");  // NOLINT(concurrency-mt-unsafe)
    if (configured != nullptr && *configured != '\0') return configured;
    return Platform::homeDirectory() + "/Library/Application Support/Tidewell/tidewell-agent.sock";
}

SocketClient::SocketClient(std::string socketPath) : socketPath_(std::move(socketPath)) {}

JSONValue SocketClient::forward(std::string_view tool, JSONValue args) const {
    const JSONValue envelope =
        JSONValue::object({{"tool", tool}, {"args", std::move(args)}, {"requestId", randomUUID()}});
    ByteBuffer request;
    envelope.writeJSON(request);
    request.append('\n');
    LineBuffer received;
    return JSONValue::decode(exchange(request.view(), received));
}

/// Writes the request line and returns the reply line, which lies in `received`.
std::string_view SocketClient::exchange(std::string_view request, LineBuffer& received) const {
    const Descriptor socket = connectOnce();
    if (!socket.isOpen()) {
        // The path is whatever bytes the environment held; a reply has to be UTF-8.
        throw MCPError::appNotRunning("could not connect to tidewell-agent.sock at " +
                                      repairedUTF8(socketPath_) + " — is Tidewell running?");
    }
    if (const auto failure = writeAll(socket.get(), request)) {
        throw MCPError::appNotRunning("socket write failed: errno=" + std::to_string(*failure));
    }
    const auto line = readLine(socket.get(), received);
    if (!line) {
        throw MCPError::appNotRunning("no response from Tidewell within " +
                                      std::to_string(socketTimeoutSeconds) + "s (app busy or stalled)");
    }
    return *line;
}

/// A connection with both time limits set, or a closed descriptor on any failure. One attempt, no waiting.
Descriptor SocketClient::connectOnce() const {
    Descriptor socket(Platform::openStreamSocket());
    if (!socket.isOpen()) return {};

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.size() + 1 > sizeof address.sun_path) return {};
    socketPath_.copy(address.sun_path, socketPath_.size());
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};

    // Best effort: without them a stalled host app holds the call, but nothing breaks.
    const timeval limit{.tv_sec = socketTimeoutSeconds, .tv_usec = 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return socket;
}

}  // namespace tidewell
