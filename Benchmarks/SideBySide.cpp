// SideBySide.cpp: the program beside the floor (Floor.c) and the plain version (PlainServer.cpp), each a
// process of its own in front of the same canned host app, doing the same work. Scripts/bench runs it and
// judges the ratios.
//
// Before anything is measured, the three are asked once what they will be asked, and their answers compared
// as JSON values; from then on every measured reply has to have the length of the one that was compared.
#include "CannedReply.hpp"
#include "Client.hpp"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace tidewell::bench;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// The floor tells the method by its place in the line: all requests begin alike.
std::string request(std::string_view rest) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(rest) + "}\n";
}

std::string callRequest(std::string_view tool) {
    return request(R"(tools/call","params":{"name":")" + std::string(tool) +
                   R"(","arguments":{"repoId":"r1","limit":20,"includeArchived":false}})");
}

const std::string initializeRequest =
    request(R"(initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},)"
            R"("clientInfo":{"name":"bench","version":"1"}})");
const std::string pingRequest = request(R"(ping")");
const std::string listRequest = request(R"(tools/list","params":{})");
const std::string smallCall = callRequest("get_repository");
const std::string largeCall = callRequest("reply_8_mb");
const std::string hugeCall = callRequest("reply_64_mb");

/// A server to measure, and how long its replies have to be, by request.
struct Server {
    std::string name;
    Command command;
    std::map<std::string, std::size_t> replySizes;
};

/// One after another: nothing is measured here but one reply at a time.
void exchange(Client& client, const Server& server, const std::string& line) {
    client.write(line);
    if (client.readReply() != server.replySizes.at(line))
        throw std::runtime_error("a reply of another length");
}

// --- what is measured ---------------------------------------------------------------------------------
// Real time counts. Beside it stands the processor time of the server alone, which a busy machine disturbs
// less.

void setProcessorTime(benchmark::State& state, double seconds, std::size_t requestsEach) {
    const auto requests = static_cast<double>(state.iterations()) * static_cast<double>(requestsEach);
    state.counters["processor"] = seconds * 1e6 / requests;
}

/// From before the process exists to its first reply.
void start(benchmark::State& state, const Server& server) {
    double busy = 0;
    for (auto _ : state) {
        const auto before = Clock::now();
        Client client(server.command, initializeRequest);
        const std::size_t size = client.readReply();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - before).count());
        if (size != server.replySizes.at(initializeRequest)) state.SkipWithError("a reply of another length");
        busy += client.finish();
    }
    setProcessorTime(state, busy, 1);
}

/// `count` requests in one go; the time is that of one.
void pipelined(benchmark::State& state, const Server& server, const std::string& line, std::size_t count) {
    std::string requests;
    for (std::size_t at = 0; at < count; ++at) requests += line;
    Client client(server.command);
    exchange(client, server, line);
    const double busyBefore = client.processorSeconds();
    for (auto _ : state) {
        const auto before = Clock::now();
        client.write(requests);
        const bool isRight = client.readReplies(server.replySizes.at(line) * count);
        const std::chrono::duration<double> passed = Clock::now() - before;
        state.SetIterationTime(passed.count() / static_cast<double>(count));
        if (!isRight) state.SkipWithError("replies of another length");
    }
    setProcessorTime(state, client.processorSeconds() - busyBefore, count);
}

/// One request after the other's reply.
void oneByOne(benchmark::State& state, const Server& server, const std::string& line) {
    Client client(server.command);
    exchange(client, server, line);
    const double busyBefore = client.processorSeconds();
    for (auto _ : state) {
        const auto before = Clock::now();
        exchange(client, server, line);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - before).count());
    }
    setProcessorTime(state, client.processorSeconds() - busyBefore, 1);
}

/// What is resident after a first conversation, and the most it has ever been after the reply to
/// `line`.
void memory(benchmark::State& state, const Server& server, const std::string& line) {
    for (auto _ : state) {
        Client client(server.command);
        exchange(client, server, initializeRequest);
        exchange(client, server, listRequest);
        state.counters["resident"] = static_cast<double>(client.memory("VmRSS"));
        exchange(client, server, line);
        state.counters["peak"] = static_cast<double>(client.memory("VmHWM"));
        state.SetIterationTime(1e-6);
    }
}

// --- whether they are right ---------------------------------------------------------------------------

std::string ask(const Server& server, const std::string& line) {
    Client client(server.command);
    client.keep();
    client.write(line);
    client.readReply();
    return client.kept();
}

void require(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error("nothing was measured, because this is wrong: " +
                                 what.substr(0, what.find('\n')));
}

/// A tool's text is JSON inside JSON, whose members stand in no promised order.
json withTextParsed(json reply) {
    if (!reply["result"].contains("content")) return reply;
    json& text = reply["result"]["content"][0]["text"];
    text = json::parse(text.get_ref<const std::string&>());
    return reply;
}

void compareReplies(Server& ours, Server& floor, Server& plain) {
    for (const std::string& line : {initializeRequest, pingRequest, listRequest, smallCall, largeCall}) {
        const std::string expected = ask(plain, line);
        const std::string actual = ask(ours, line);
        const json value = withTextParsed(json::parse(actual));
        require(value == withTextParsed(json::parse(expected)), "ours and plain differ on " + line);
        require(value["id"] == 1 && value.contains("result"), "no result for " + line);
        ours.replySizes[line] = actual.size();
        plain.replySizes[line] = expected.size();
        floor.replySizes[line] = ask(floor, line).size();
    }
    for (const auto& [line, size] : {std::pair(smallCall, smallSize), std::pair(largeCall, 8 * megabyte)}) {
        const json value = withTextParsed(json::parse(ask(ours, line)));
        require(value["result"]["content"][0]["text"] == json::parse(cannedResult(size)),
                "the text of " + line);
        require(value["result"]["isError"] == false, "an error reply to " + line);
        require(ask(floor, line).find(cannedResult(size)) != std::string::npos,
                "the floor's reply to " + line);
    }
    // The largest only by its length: that of the host app's text within the same frame.
    const auto escapedSize = [](std::size_t size) { return json(cannedResult(size)).dump().size(); };
    const std::size_t frame = ours.replySizes[largeCall] - escapedSize(8 * megabyte);
    ours.replySizes[hugeCall] = plain.replySizes[hugeCall] = frame + escapedSize(64 * megabyte);
    floor.replySizes[hugeCall] =
        floor.replySizes[largeCall] - cannedReply(8 * megabyte).size() + cannedReply(64 * megabyte).size();
    for (const std::string& line : {initializeRequest, pingRequest, listRequest}) {
        require(floor.replySizes[line] == ours.replySizes[line], "the floor's reply to " + line);
    }
}

// --- all together -------------------------------------------------------------------------------------

void registerOne(const std::string& work, const Server& server, benchmark::IterationCount iterations,
                 const std::function<void(benchmark::State&, const Server&)>& run) {
    benchmark::RegisterBenchmark((work + "/" + server.name).c_str(),
                                 [&server, run](benchmark::State& state) {
                                     try {
                                         run(state, server);
                                     } catch (const std::exception& error) {
                                         state.SkipWithError(error.what());
                                     }
                                 })
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(iterations);
}

void registerAll(const Server& server) {
    registerOne("start", server, 20, start);
    registerOne("ping", server, 3,
                [](auto& state, const Server& each) { pipelined(state, each, pingRequest, 10'000); });
    registerOne("list", server, 100,
                [](auto& state, const Server& each) { oneByOne(state, each, listRequest); });
    registerOne("list-pipelined", server, 5,
                [](auto& state, const Server& each) { pipelined(state, each, listRequest, 40); });
    registerOne("call", server, 300,
                [](auto& state, const Server& each) { oneByOne(state, each, smallCall); });
    registerOne("8MB", server, 3, [](auto& state, const Server& each) { oneByOne(state, each, largeCall); });
    if (server.name != "plain") {
        registerOne("64MB", server, 1,
                    [](auto& state, const Server& each) { oneByOne(state, each, hugeCall); });
        registerOne("memory", server, 1,
                    [](auto& state, const Server& each) { memory(state, each, hugeCall); });
    }
}

class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = "/tmp/tidewell-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

void run() {
    const TemporaryFolder folder;
    const std::string socketPath = folder.path() + "/host.sock";
    const std::string toolsPath = folder.path() + "/tools.json";

    Client host({{HOST_PATH, socketPath}, {}});
    host.readReply();
    {
        std::ofstream tools(toolsPath);
        const std::string list = ask({"ours", {{OURS_PATH}, {}}, {}}, listRequest);
        tools << list;
    }
    const std::vector<std::string> environment = {"HOME=/nonexistent", "TIDEWELL_SOCKET_PATH=" + socketPath};
    Server ours{"ours", {{OURS_PATH}, environment}, {}};
    Server floor{"floor", {{FLOOR_PATH, toolsPath}, environment}, {}};
    Server plain{"plain", {{PLAIN_PATH, toolsPath}, environment}, {}};
    compareReplies(ours, floor, plain);

    benchmark::AddCustomContext("reply_64_mb_bytes", std::to_string(cannedReply(64 * megabyte).size()));
    benchmark::AddCustomContext("tools_list_bytes", std::to_string(ours.replySizes[listRequest]));
    for (const Server* const server : {&ours, &floor, &plain}) registerAll(*server);
    benchmark::RunSpecifiedBenchmarks();
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    ::signal(SIGPIPE, SIG_IGN);  // a server that went early is an error to report
    benchmark::Initialize(&argumentCount, arguments);
    if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments)) return 2;
    try {
        run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "SideBySide: %s\n", error.what());
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
