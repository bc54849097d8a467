// main.cpp: arguments, the two switches, wiring; nothing else.
#include "Base/Platform.hpp"
#include "Host/SocketClient.hpp"
#include "Server/ServerVersion.hpp"
#include "Server/StdioBridge.hpp"

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
        "Tidewell " + serverVersion() + " (protocol " + std::string(protocolVersion) + ")\n";
    static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
    static_cast<void>(std::fflush(stdout));
}

/// What a client would see first, without a client: the initialize result and the tool table.
void printSelfTest() {
    const SocketClient unused(socketPathDefault());  // nothing is connected
    for (const auto& [id, method] : {std::pair(1, "initialize"), std::pair(2, "tools/list")}) {
        ByteBuffer reply;
        reply.append(R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":)");
        findMethod(method)->handler({"{}", unused, reply});
        reply.append('}');
        emitLine(reply);
    }
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
        StdioBridge(SocketClient(socketPathDefault())).run();
    }
    return 0;
}
