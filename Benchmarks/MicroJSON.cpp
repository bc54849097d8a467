// MicroJSON.cpp: what reading and rewriting JSON text costs. Bytes a second are those of the text.
#include "CannedReply.hpp"
#include "Host/HostReply.hpp"
#include "Server/Catalog.hpp"
#include "JSON/JSONWriter.hpp"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace {

using namespace tidewell;
using namespace tidewell::bench;

constexpr std::string_view request =
    R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"get_repository",)"
    R"("arguments":{"repoId":"local-1","limit":20,"includeRemote":true}}})";

const std::string& largeReply() {
    static const std::string text = cannedReply(8 * megabyte);
    return text;
}

void run(benchmark::State& state, std::string_view text, auto work) {
    for ([[maybe_unused]] const auto _ : state) work(text);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void skip(benchmark::State& state, std::string_view text) {
    run(state, text, [](std::string_view each) { JSONReader(each).skipValue(); });
}
BENCHMARK_CAPTURE(skip, request, request)->Name("skip/request");
BENCHMARK_CAPTURE(skip, reply8MB, largeReply())->Name("skip/reply8MB")->Unit(benchmark::kMillisecond);

/// Freeing the value is part of what decoding costs.
void decode(benchmark::State& state, std::string_view text) {
    run(state, text, [](std::string_view each) { benchmark::DoNotOptimize(JSONValue::decode(each)); });
}
BENCHMARK_CAPTURE(decode, request, request)->Name("decode/request");
BENCHMARK_CAPTURE(decode, catalog, Catalog::tools())->Name("decode/catalog");

void write(benchmark::State& state, std::string_view text) {
    const JSONValue value = JSONValue::decode(text);
    run(state, text, [&](std::string_view) { benchmark::DoNotOptimize(value.jsonString()); });
}
BENCHMARK_CAPTURE(write, request, request)->Name("write/request");
BENCHMARK_CAPTURE(write, catalog, Catalog::tools())->Name("write/catalog");

void passOn(benchmark::State& state, std::string_view text) {
    ByteBuffer out;
    run(state, text, [&](std::string_view each) {
        out.clear();
        JSONReader reader(each);
        benchmark::DoNotOptimize(readHostReply(reader, out));
    });
}
BENCHMARK_CAPTURE(passOn, reply8MB, largeReply())->Name("passOn/reply8MB")->Unit(benchmark::kMillisecond);

}  // namespace
