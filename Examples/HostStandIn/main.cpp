// HostStandIn: answers the agent socket in place of the desktop application, from the git repositories below
// one folder.

#include "Server.hpp"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <optional>
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
    "  --help          print this and leave\n";

struct Options {
    std::string root, socket;
    bool help = false;
};

/// Nothing when the command line is wrong; the reason has been printed then.
std::optional<Options> readOptions(int count, char** arguments) {
    const auto wrong = [](const std::string& reason) {
        std::cerr << "HostStandIn: " << reason << '\n' << usage;
        return std::nullopt;
    };
    Options options;
    for (int at = 1; at < count; ++at) {
        const std::string_view name = arguments[at];
        if (name == "--help") {
            options.help = true;
            return options;
        }
        if (name != "--root" && name != "--socket") return wrong("unknown argument " + std::string(name));
        if (at + 1 == count) return wrong(std::string(name) + " needs a value");
        std::string& value = name == "--root" ? options.root : options.socket;
        if (!value.empty()) return wrong(std::string(name) + " is given twice");
        value = arguments[++at];
    }
    if (options.root.empty()) return wrong("--root is missing");
    if (options.socket.empty()) return wrong("--socket is missing");
    return options;
}

// A signal handler takes no argument of its own, so this one global is the way to the signal.
StopSignal* stopOnSignal = nullptr;

void installSignalHandlers(StopSignal& stop) {
    stopOnSignal = &stop;
    struct sigaction action {};
    action.sa_handler = [](int) { stopOnSignal->raise(); };
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN);  // a write to a client that is gone shall fail, not kill
    (void)std::signal(SIGCHLD, SIG_DFL);  // if our parent ignored it, we could not learn git's exit code
}

}  // namespace

int main(int count, char** arguments) {
    const std::optional<Options> options = readOptions(count, arguments);
    if (!options) return exitUsage;
    if (options->help) {
        std::cout << usage;
        return EXIT_SUCCESS;
    }
    try {
        StopSignal stop;
        installSignalHandlers(stop);
        const Root root(options->root);
        ListeningSocket socket(options->socket);
        std::cout << "HostStandIn serves " << options->root << " at " << options->socket << std::endl;
        Server(root, socket, stop).run();
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::cerr << "HostStandIn: " << error.what() << '\n';
        return exitFailure;
    }
}
