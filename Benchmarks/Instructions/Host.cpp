// Host.cpp: the host app of the fixed conversations: starts one command and gives canned replies on a socket until
// the command has ended.
//
//   InstructionHost SOCKET COMMAND [ARGUMENT…]      ends with the command's exit status
#include "../CannedReply.hpp"

#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

namespace {

using namespace tidewell::bench;

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::_Exit(EXIT_FAILURE);
}

const std::string& replyTo(std::string_view envelope) {
    static const std::string large = cannedReply(megabyte);
    static const std::string small = cannedReply(smallSize);
    static const std::string refusal =
        R"({"ok":false,"error":{"code":"confirmation_required","message":"No valid confirmation token.",)"
        R"("hint":"Ask for one in Tidewell → Agent Review."}})"
        "\n";
    const auto asksFor = [&](std::string_view tool) { return envelope.find(tool) != std::string_view::npos; };
    if (asksFor(R"("tool":"list_local_repositories")")) return large;
    if (asksFor(R"("tool":"git_push")")) return refusal;
    return small;
}

void answer(int connection) {
    std::string envelope;
    std::array<char, 65536> chunk{};
    while (envelope.empty() || envelope.back() != '\n') {
        const ssize_t count = ::read(connection, chunk.data(), chunk.size());
        if (count <= 0) return;
        envelope.append(chunk.data(), static_cast<std::size_t>(count));
    }
    for (std::string_view rest = replyTo(envelope); !rest.empty();) {
        const ssize_t count = ::send(connection, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

int listenAt(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) fail("the socket's path is too long");
    path.copy(address.sun_path, path.size());
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
    if (::listen(listener, 16) != 0) fail("listen");
    return listener;
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount < 3) return EXIT_FAILURE;
    const int listener = listenAt(arguments[1]);
    pid_t command = -1;
    if (::posix_spawnp(&command, arguments[2], nullptr, nullptr, arguments + 2, environ) != 0)
        fail(arguments[2]);

    std::thread([listener] {
        for (;;) {
            const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) fail("accept");
            answer(connection);
            ::close(connection);
        }
    }).detach();

    int state = 0;
    if (::waitpid(command, &state, 0) != command) fail("waitpid");
    std::_Exit(WIFEXITED(state) ? WEXITSTATUS(state) : EXIT_FAILURE);
}
