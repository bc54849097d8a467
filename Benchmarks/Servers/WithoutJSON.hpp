// WithoutJSON.hpp: what PlainServer.cpp and ExpertServer.cpp have in common: everything but JSON.
#pragma once

#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tidewell::bench {

inline constexpr const char* instructions =
    "Read tools (L0) work directly. To mutate: call a propose_* tool, ask the user to confirm in Tidewell → "
    "Agent Review to get a confirmationToken, then call the apply/git tool with that token. Dangerous git is "
    "always blocked.";

inline void writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count <= 0) throw std::runtime_error("write failed");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline std::string readVersion() {
    const auto parent = [](const std::string& path) { return path.substr(0, path.rfind('/')); };
    std::array<char, 4096> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0) return "0.0.0-dev";
    const std::string program(path.data(), static_cast<std::size_t>(length));
    const std::string text = readFile(parent(parent(program)) + "/Info.plist");
    const auto key = text.find("<key>CFBundleShortVersionString</key>");
    const auto begin = text.find("<string>", key);
    if (key == std::string::npos || begin == std::string::npos) return "0.0.0-dev";
    return text.substr(begin + 8, text.find("</string>", begin) - begin - 8);
}

inline std::string randomId() {
    std::array<unsigned char, 16> bytes{};
    if (::getentropy(bytes.data(), bytes.size()) != 0) throw std::runtime_error("no random bytes");
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (at == 4 || at == 6 || at == 8 || at == 10) text += '-';
        text += "0123456789ABCDEF"[bytes[at] >> 4];
        text += "0123456789ABCDEF"[bytes[at] & 15];
    }
    return text;
}

/// One line to the host app, with its line feed; its reply without.
inline std::string exchange(std::string_view line) {
    const char* const path = std::getenv("TIDEWELL_SOCKET_PATH");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path == nullptr ? "" : path).copy(address.sun_path, sizeof address.sun_path - 1);
    const int connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(connection);
        throw std::runtime_error("not running");
    }
    const timeval limit{.tv_sec = 120, .tv_usec = 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    writeAll(connection, line);

    std::string received;
    std::array<char, 4096> chunk{};
    std::size_t end = std::string::npos;
    while (end == std::string::npos) {
        const ssize_t count = ::read(connection, chunk.data(), chunk.size());
        if (count <= 0) break;
        const std::size_t before = received.size();
        received.append(chunk.data(), static_cast<std::size_t>(count));
        end = received.find('\n', before);
    }
    ::close(connection);
    if (end == std::string::npos) throw std::runtime_error("no response");
    received.resize(end);
    return received;
}

/// Reads standard input to its end and passes on each line that is not empty.
template <typename Handler>
void serveLines(Handler handle) {
    std::string buffer;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (count <= 0) return;
        buffer.append(chunk.data(), static_cast<std::size_t>(count));
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = buffer.find('\n', begin)) != std::string::npos; begin = end + 1) {
            if (end > begin) handle(buffer.substr(begin, end - begin));
        }
        buffer.erase(0, begin);
    }
}

}  // namespace tidewell::bench
