// main.cpp: arguments, the two switches, wiring; nothing else.
#include "Catalog.hpp"
#include "Platform.hpp"
#include "SocketClient.hpp"
#include "StdioBridge.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace tidewell;

void printVersion() {
    const std::string line =
        "Tidewell " + StdioBridge::serverVersion() + " (protocol " + std::string(protocolVersion) + ")\n";
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
    static_cast<void>(std::fflush(stdout));
}

/// What a client would see first, without a client: the initialize result and the tool table.
void printSelfTest() {
    static_cast<void>(socketPathDefault());  // proves that the path can be found; nothing is connected
    const auto reply = [](int id, JSONValue result) {
        emitLine(JSONValue::object({{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}}));
    };
    reply(1, StdioBridge::handleInitialize(JSONValue::object({})));
    reply(2, JSONValue::object({{"tools", Catalog::tools()}}));
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    Platform::configureMemory();
    std::set_terminate(std::abort);  // the standard one writes to standard error, which is never used here
    const std::span args(arguments + std::min(argumentCount, 1), arguments + argumentCount);
    const auto given = [&](std::string_view wanted) {
        return std::ranges::any_of(args, [&](std::string_view argument) { return argument == wanted; });
    };
    if (given("--version")) {
        printVersion();
    } else if (given("--selftest")) {
        printSelfTest();
    } else {
        StdioBridge bridge{SocketClient(socketPathDefault())};
        bridge.run();
    }
    return 0;
}
