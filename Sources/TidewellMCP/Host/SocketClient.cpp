#include "Host/SocketClient.hpp"

#include "Base/MCPError.hpp"
#include "Base/Platform.hpp"
#include "Base/UTF8.hpp"
#include "JSON/JSONValue.hpp"
#include "JSON/JSONWriter.hpp"

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

/// Appends a random (version 4) UUID, RFC 4122, in upper case.
void appendRandomUUID(ByteBuffer& text) {
    std::array<unsigned char, 16> bytes{};
    if (!Platform::fillRandom(bytes)) throw MCPError::internalError("could not make a request id");
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

    constexpr std::string_view digits = "0123456789ABCDEF";
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (at == 4 || at == 6 || at == 8 || at == 10) text.append('-');
        text.append(digits[bytes[at] >> 4]);
        text.append(digits[bytes[at] & 0x0F]);
    }
}

/// Returns nothing when all bytes were sent, else the error number.
std::optional<int> writeAll(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = Platform::sendBytes(socket, bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return errno;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return std::nullopt;
}

/// The reply line, piece by piece as it arrives. Only a line feed makes a reply complete: end of stream,
/// timeout and error all mean that none came.
class ReplyLine : public JSONSource {
public:
    explicit ReplyLine(int socket) : socket_(socket) {}

    std::string_view next(std::string_view kept) override {
        if (isComplete_) return kept;
        piece_.dropFront(piece_.size() - kept.size());
        const std::string_view read = readSome();
        const std::size_t end = read.find('\n');
        isComplete_ = end != read.npos;
        if (isComplete_) piece_.truncate(kept.size() + end);
        return piece_.view();
    }

    /// Reads on to the line feed when the text before it was wrong.
    void skipRest() {
        while (!isComplete_) next({});
    }

private:
    std::string_view readSome() {
        for (;;) {
            char* const place = piece_.room(pieceSize);
            const ssize_t count = ::read(socket_, place, pieceSize);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                throw MCPError::appNotRunning("no response from Tidewell within " +
                                              std::to_string(socketTimeoutSeconds) +
                                              "s (app busy or stalled)");
            }
            piece_.endAt(place + count);
            return {place, static_cast<std::size_t>(count)};
        }
    }

    static constexpr std::size_t pieceSize = 4096;

    const int socket_;
    ByteBuffer piece_;
    bool isComplete_ = false;
};

HostReply readReply(int socket, ByteBuffer& result) {
    ReplyLine line(socket);
    JSONReader reader(line);
    try {
        return readHostReply(reader, result);
    } catch (const JSONError&) {
        line.skipRest();  // without a line feed there was no reply, not even a wrong one
        throw;
    }
}

}  // namespace

std::string socketPathDefault() {
    const char* const configured = std::getenv("TIDEWELL_SOCKET_PATH");  // NOLINT(concurrency-mt-unsafe)
    if (configured != nullptr && *configured != '\0') return configured;
    return Platform::homeDirectory() + "/Library/Application Support/Tidewell/tidewell-agent.sock";
}

SocketClient::SocketClient(std::string socketPath) : socketPath_(std::move(socketPath)) {}

HostReply SocketClient::forward(std::string_view tool, std::string_view args, ByteBuffer& result) const {
    ByteBuffer request;
    request.append(R"({"tool":)");
    JSONValue(tool).writeJSON(request);
    request.append(R"(,"args":)");
    rewriteJSON(args, NumberRule::oneAndZeroAreBooleans, request);
    request.append(R"(,"requestId":")");
    appendRandomUUID(request);
    request.append("\"}\n");

    const Descriptor socket = connectOnce();
    if (!socket.isOpen()) {
        // The path is whatever bytes the environment held; a reply has to be UTF-8.
        throw MCPError::appNotRunning("could not connect to tidewell-agent.sock at " +
                                      repairedUTF8(socketPath_) + " — is Tidewell running?");
    }
    if (const auto failure = writeAll(socket.get(), request.view())) {
        throw MCPError::appNotRunning("socket write failed: errno=" + std::to_string(*failure));
    }
    return readReply(socket.get(), result);
}

/// A connection with both time limits set, or a closed descriptor on any failure. One attempt, no waiting.
Descriptor SocketClient::connectOnce() const {
    Descriptor socket(Platform::openStreamSocket());
    if (!socket.isOpen()) return {};

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.size() >= Platform::socketPathCapacity) return {};
    socketPath_.copy(address.sun_path, socketPath_.size());
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};

    // Best effort: without them a stalled host app holds up the call, but nothing breaks.
    const timeval limit{.tv_sec = socketTimeoutSeconds, .tv_usec = 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return socket;
}

}  // namespace tidewell
