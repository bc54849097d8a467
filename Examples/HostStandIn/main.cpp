// HostStandIn: answers the agent socket in place of the desktop application, from the git repositories below
// one folder.

#include "AgentSocket.hpp"

#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>

namespace {

using namespace tidewell::standin;

constexpr int exitFailure = 1;
constexpr int exitUsage = 2;

constexpr std::string_view usage =
    "usage: HostStandIn --root FOLDER --socket PATH\n"
    "  --root FOLDER   serve the git repositories in and below this folder\n"
    "  --socket PATH   listen here; start the server with TIDEWELL_SOCKET_PATH set to the same path\n"
    "  --help, -h      print this and leave\n";

int serve(const std::string& folder, const std::string& path) {
    try {
        noticeStopSignals();
        const Root root(folder);
        AgentSocket socket(path);
        std::cout << "HostStandIn serves " << folder << " at " << path << std::endl;
        socket.serve(root);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "HostStandIn: " << error.what() << '\n';
        return exitFailure;
    }
}

}  // namespace

int main(int count, char** arguments) {
    std::string root, socket, wrong;
    for (int at = 1; at < count && wrong.empty(); ++at) {
        const std::string name = arguments[at];
        if (name == "--help" || name == "-h") {
            std::cout << usage;
            return EXIT_SUCCESS;
        }
        if (name != "--root" && name != "--socket")
            wrong = "unknown argument " + name;
        else if (at + 1 == count)
            wrong = name + " needs a value";
        else
            (name == "--root" ? root : socket) = arguments[++at];
    }
    if (wrong.empty() && root.empty()) wrong = "--root is missing";
    if (wrong.empty() && socket.empty()) wrong = "--socket is missing";
    if (wrong.empty()) return serve(root, socket);
    std::cerr << "HostStandIn: " << wrong << '\n' << usage;
    return exitUsage;
}
