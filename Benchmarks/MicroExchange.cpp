// MicroExchange.cpp: the hand-off to the worker, and one exchange with a host app on a thread of this
// process.
#include "CannedReply.hpp"
#include "Host/SocketClient.hpp"
#include "Host/Worker.hpp"
#include "Support/ScriptedHost.hpp"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

using namespace tidewell;

/// A job that does nothing: what remains is two changes of thread.
void handOff(benchmark::State& state) {
    Worker worker;
    std::int64_t done = 0;
    for ([[maybe_unused]] const auto _ : state) worker.run([&] { ++done; });
    if (done < state.iterations()) state.SkipWithError("jobs were lost");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(handOff)->Name("handOff")->UseRealTime();

void exchange(benchmark::State& state) {
    const std::string reply = bench::cannedReply(static_cast<std::size_t>(state.range(0)));
    test::ScriptedHost host;
    host.otherwise([&reply](const test::HostConnection& connection) {
        connection.readEnvelope();
        connection.write(reply);
    });
    const SocketClient client(host.socketPath());
    ByteBuffer result;
    for ([[maybe_unused]] const auto _ : state) {
        result.clear();
        if (!client.forward("get_repository", R"({"repoId":"local-1","limit":20})", result).isSuccess)
            return state.SkipWithError("no reply");
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(reply.size()));
}
BENCHMARK(exchange)
    ->Name("exchange")
    ->ArgName("reply")
    ->Arg(bench::smallSize)
    ->Arg(64 << 10)
    ->Arg(bench::megabyte)
    ->UseRealTime();

}  // namespace
