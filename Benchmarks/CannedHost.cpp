// CannedHost.cpp: a host app that answers from memory, so that only the server is measured.
//
//   CannedHost SOCKET                        says "ready" once it listens; ends with its standard input
//   CannedHost SOCKET COMMAND [ARGUMENT…]    runs the command, and ends with it and its exit status
#include "CannedShapes.hpp"
#include "Support/ScriptedHost.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

namespace {

/// The name of the tool, from the server's envelope or the request that the floor passes on.
std::string_view toolOf(std::string_view line) {
    for (const std::string_view key : {R"("tool":")", R"("name":")"}) {
        const auto begin = line.find(key);
        if (begin == std::string_view::npos) continue;
        line.remove_prefix(begin + key.size());
        return line.substr(0, line.find('"'));
    }
    return {};
}

int run(char* command[]) {
    pid_t id = -1;
    int state = 0;
    if (::posix_spawnp(&id, command[0], nullptr, nullptr, command, environ) != 0 ||
        ::waitpid(id, &state, 0) != id) {
        std::perror(command[0]);
        return 1;
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : 1;
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount < 2) return 2;
    tidewell::test::ScriptedHost host(arguments[1]);
    host.otherwise([](const tidewell::test::HostConnection& connection) {
        connection.write(tidewell::bench::cannedAnswer(toolOf(connection.readEnvelope())));
    });
    if (argumentCount > 2) return run(arguments + 2);
    if (::write(STDOUT_FILENO, "ready\n", 6) != 6) return 1;
    std::array<char, 64> ignored{};
    while (::read(STDIN_FILENO, ignored.data(), ignored.size()) > 0) continue;
}
