// CannedHost.cpp: a host app that answers from memory, so that what is measured is the server.
//
//   CannedHost SOCKET     says "ready" once it listens; ends with its standard input
//
// A request that mentions reply_8_mb or reply_64_mb gets a reply of that size, any other a small one.
#include "CannedReply.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

namespace {

using namespace tidewell::bench;

int listenAt(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return -1;
    return ::listen(listener, 16) == 0 ? listener : -1;
}

void sendAll(int connection, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void endWithInput() {
    std::array<char, 64> ignored{};
    while (::read(STDIN_FILENO, ignored.data(), ignored.size()) > 0) continue;
    std::_Exit(0);
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount != 2) return 2;
    const std::string small = cannedReply(smallSize);
    const std::string large = cannedReply(8 * megabyte);
    const std::string huge = cannedReply(64 * megabyte);
    const int listener = listenAt(arguments[1]);
    if (listener < 0) return 1;
    if (::write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
    std::thread(endWithInput).detach();

    std::array<char, 4096> request{};  // every request here fits one read
    for (;;) {
        const int connection = ::accept(listener, nullptr, nullptr);
        if (connection < 0) return 1;
        const ssize_t size = ::read(connection, request.data(), request.size());
        const std::string_view text(request.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        if (text.find("reply_8_mb") != std::string_view::npos) {
            sendAll(connection, large);
        } else if (text.find("reply_64_mb") != std::string_view::npos) {
            sendAll(connection, huge);
        } else if (!text.empty()) {
            sendAll(connection, small);
        }
        ::close(connection);
    }
}
