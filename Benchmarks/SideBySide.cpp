// SideBySide.cpp: compares the program with other servers (Servers/), each a process of its own in front of the
// same canned host app, doing the same work. Scripts/bench runs it, judges the ratios and draws the picture.
//
//   SideBySide [--ours=PROGRAM] [--only=REGEX] [--repetitions=N] [--sizes] [GOOGLE BENCHMARK'S OPTIONS]
//
// --ours measures another build in the program's place; --only leaves out what does not match, by
// "work/server"; --sizes measures replies of 1 KB to 256 MB instead of the rows of the tables. Before anything
// is measured, each server is sent every request once and the answers are compared as JSON values; from then on
// every measured reply must be as long as the one that was compared.
#include "CannedReply.hpp"
#include "CannedShapes.hpp"
#include "Servers.hpp"
#include "Support/TemporaryFolder.hpp"

#include <benchmark/benchmark.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tidewell::bench;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string ours = OURS_PATH;
    std::regex only{""};
    int repetitions = 15;
    bool bySize = false;

    bool wants(std::string_view work, const Server& server) const {
        return std::regex_search(std::string(work) + '/' + server.name, only);
    }
};

/// One request and its reply; nothing is pipelined.
void exchange(Client& client, const Server& server, const std::string& line) {
    client.write(line);
    if (!server.isReply(line, client.readReply())) throw std::runtime_error("a reply of another length");
}

// --- what is measured ---------------------------------------------------------------------------------
// Real time counts. The server's own processor time is reported as well, because a busy machine disturbs it
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
        if (!server.isReply(initializeRequest, size)) state.SkipWithError("a reply of another length");
        busy += client.finish();
    }
    setProcessorTime(state, busy, 1);
}

/// `count` requests in one go; the time reported is per request.
void pipelined(benchmark::State& state, const Server& server, const std::string& line, std::size_t count) {
    std::string requests;
    for (std::size_t at = 0; at < count; ++at) requests += line;
    Client client(server.command);
    exchange(client, server, line);
    const double busyBefore = client.processorSeconds();
    for (auto _ : state) {
        const auto before = Clock::now();
        client.write(requests);
        const bool isRight = client.readReplies(server.replySizes.at(line).bytes * count);
        const std::chrono::duration<double> passed = Clock::now() - before;
        state.SetIterationTime(passed.count() / static_cast<double>(count));
        if (!isRight) state.SkipWithError("replies of another length");
    }
    setProcessorTime(state, client.processorSeconds() - busyBefore, count);
}

/// Each request waits for the reply to the one before; the first is not measured. Also the server's memory:
/// resident after the handshake and the list, its peak, and resident once a final ping has been answered.
void oneByOne(benchmark::State& state, const Server& server, const std::string& line) {
    Client client(server.command);
    exchange(client, server, initializeRequest);
    exchange(client, server, listRequest);
    state.counters["resident"] = static_cast<double>(client.memory("VmRSS"));
    exchange(client, server, line);
    const double busyBefore = client.processorSeconds();
    for (auto _ : state) {
        const auto before = Clock::now();
        exchange(client, server, line);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - before).count());
    }
    setProcessorTime(state, client.processorSeconds() - busyBefore, 1);
    exchange(client, server, pingRequest);
    state.counters["peak"] = static_cast<double>(client.memory("VmHWM"));
    state.counters["residentAfter"] = static_cast<double>(client.memory("VmRSS"));
}

// --- what is registered -------------------------------------------------------------------------------

using Run = std::function<void(benchmark::State&, const Server&)>;

struct Often {
    benchmark::IterationCount iterations;
    int repetitions;
};

void registerOne(const Options& options, const std::string& work, const Server& server, Often often,
                 const Run& run) {
    if (!options.wants(work, server)) return;
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
        ->Iterations(often.iterations)
        ->Repetitions(often.repetitions);
}

Run askingFor(const std::string& line, double replySize = 0) {
    return [line, replySize](benchmark::State& state, const Server& server) {
        oneByOne(state, server, line);
        state.counters["reply"] = replySize;
    };
}

Run askingFor(std::size_t size) {
    return askingFor(callRequest(size), static_cast<double>(cannedReply(size).size()));
}

/// The rows of the main table: 20 starts at a time, for example, or 2 of a slow server. All but the largest
/// reply are cheap, so there are more repetitions of them: on a machine that is fast in one minute and slow in
/// the next, a few would compare one server's good minutes with another's bad ones.
void registerWork(const Options& options, const Server& server) {
    // No limit of the main table compares with a slow server, so fewer repetitions will do.
    const int few = server.isSlow ? std::max(1, options.repetitions / 3) : options.repetitions;
    const int many = server.isSlow ? few : 4 * few;
    const auto often = [&](int fast, int slow) { return Often{server.isSlow ? slow : fast, many}; };
    registerOne(options, "start", server, often(20, 2), start);
    registerOne(options, "ping", server, often(5, 1),
                [](auto& state, const Server& each) { pipelined(state, each, pingRequest, 10'000); });
    registerOne(options, "list", server, often(500, 20), askingFor(listRequest));
    registerOne(options, "list-pipelined", server, often(25, 2),
                [](auto& state, const Server& each) { pipelined(state, each, listRequest, 40); });
    registerOne(options, "call", server, often(300, 100), askingFor(smallCall));
    registerOne(options, "1MB", server, often(5, 3), askingFor(megabyte));
    registerOne(options, "8MB", server, often(3, 1), askingFor(8 * megabyte));
    registerOne(options, "64MB", server, {1, few}, askingFor(64 * megabyte));
}

void registerShapes(const Options& options, const Server& server) {
    for (const Shape& shape : shapes) {
        const std::string name(shape.name);
        registerOne(options, name, server, {server.isSlow ? 1 : 3, std::max(1, options.repetitions / 3)},
                    askingFor(callRequest(name), static_cast<double>(cannedAnswer(name).size())));
    }
}

/// The points of a server's curve, until it fails or becomes too slow.
void registerSizes(const Options& options, Server& server) {
    constexpr std::size_t smallest = 1 << 10;
    constexpr std::size_t largest = 256 * megabyte;
    for (std::size_t size = smallest; size <= largest; size *= 4) {
        const std::string work = "size_" + std::to_string(size);
        if (!options.wants(work, server)) continue;
        expectLargeReply(server, size);
        if (const auto reason = findTooLarge(server, size)) {
            benchmark::AddCustomContext("stopped_" + server.name, std::to_string(size) + " " + *reason);
            return;
        }
        const auto iterations = std::clamp<std::size_t>(16 * megabyte / size, 1, server.isSlow ? 20 : 200);
        registerOne(options, work, server,
                    {static_cast<benchmark::IterationCount>(iterations),
                     server.isSlow && size >= 16 * megabyte ? 1 : std::max(1, options.repetitions / 3)},
                    askingFor(size));
    }
}

void run(const Options& options) {
    const tidewell::test::TemporaryFolder folder;
    const std::string socketPath = folder / "host.sock";
    Client host({{HOST_PATH, socketPath}, {}});
    host.readReply();

    const std::vector<std::string> environment = {"HOME=/nonexistent", "TIDEWELL_SOCKET_PATH=" + socketPath};
    const Server ours{.name = "ours", .command = {{options.ours}, environment}};
    const std::string list = folder.write("tools.json", ask(ours, listRequest));
    std::vector<Server> servers = {
        ours,
        {.name = "floor", .command = {{FLOOR_PATH, list}, environment}, .isFloor = true},
        {.name = "direct", .command = {{FLOOR_PATH, "--direct", list}, environment}, .isFloor = true},
        {.name = "plain", .command = {{PLAIN_PATH, list}, environment}, .isSlow = true},
        {.name = "expert", .command = {{EXPERT_PATH, list}, environment}},
        {.name = "sdk", .command = {{"node", SDK_PATH, list}, environment}, .isSlow = true},
    };
    compareReplies(servers);
    for (const Shape& shape : shapes) {
        if (!options.bySize && options.wants(shape.name, ours))
            compareCalls(servers, std::string(shape.name));
    }

    std::string names;  // for the order of rows
    for (const Shape& shape : shapes) {
        benchmark::AddCustomContext(std::string(shape.name), std::string(shape.title));
        names.append(names.empty() ? "" : " ").append(shape.name);
    }
    benchmark::AddCustomContext("shapes", names);
    for (Server& server : servers) {
        if (options.bySize) {
            if (server.name != "direct") registerSizes(options, server);
            continue;
        }
        expectLargeReply(server, 64 * megabyte);
        registerWork(options, server);
        if (!server.isFloor && server.name != "sdk") registerShapes(options, server);
    }
    benchmark::RunSpecifiedBenchmarks();
}

/// Takes its own options out and leaves the rest.
Options takeOptions(int& argumentCount, char* arguments[]) {
    Options options;
    const auto take = [&options](std::string_view argument) {
        const std::string_view name = argument.substr(0, argument.find('='));
        const std::string value(argument.substr(std::min(name.size() + 1, argument.size())));
        if (name == "--ours") {
            options.ours = value;
        } else if (name == "--only") {
            options.only = value;
        } else if (name == "--repetitions") {
            options.repetitions = std::stoi(value);
        } else if (name == "--sizes") {
            options.bySize = true;
        } else {
            return false;
        }
        return true;
    };
    char** const end = std::remove_if(arguments + 1, arguments + argumentCount, take);
    argumentCount = static_cast<int>(end - arguments);
    return options;
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    ::signal(SIGPIPE, SIG_IGN);  // a server that exits early is an error to report
    try {
        const Options options = takeOptions(argumentCount, arguments);
        benchmark::Initialize(&argumentCount, arguments);
        if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments)) return 2;
        run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "SideBySide: %s\n", error.what());
        return 1;
    }
    benchmark::Shutdown();
    return 0;
}
