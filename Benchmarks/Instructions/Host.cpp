// Host.cpp: the host app of the fixed conversations: starts one command and gives canned replies on a socket until
// the command has ended.
//
//   InstructionHost SOCKET COMMAND [ARGUMENT…]      ends with the command's exit status
#include "../CannedReply.hpp"
#include "Support/ScriptedHost.hpp"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using namespace tidewell::bench;

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

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount < 3) return EXIT_FAILURE;
    tidewell::test::ScriptedHost host(arguments[1]);
    host.otherwise([](const tidewell::test::HostConnection& connection) {
        connection.write(replyTo(connection.readEnvelope()));
    });
    pid_t command = -1;
    int state = 0;
    if (::posix_spawnp(&command, arguments[2], nullptr, nullptr, arguments + 2, environ) != 0 ||
        ::waitpid(command, &state, 0) != command) {
        std::perror(arguments[2]);
        return EXIT_FAILURE;
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : EXIT_FAILURE;
}
