// MicroJSON.cpp: text to values, what becomes of the values, and values to text.
//
// Bytes a second are those of the text that is read or written.
#include "CannedReply.hpp"
#include "Catalog.hpp"
#include "JSONReader.hpp"
#include "JSONValue.hpp"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace tidewell;
using namespace tidewell::bench;

constexpr std::string_view request =
    R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":{"name":"get_repository",)"
    R"("arguments":{"repoId":"local-1","limit":20,"includeRemote":true}}})";

const std::string& catalogText() {
    static const std::string text = JSONValue::object({{"tools", Catalog::tools()}}).jsonString();
    return text;
}

const std::string& largeReply() {
    static const std::string text = [] {
        std::string reply = cannedReply(8 * megabyte);
        reply.pop_back();  // the line feed
        return reply;
    }();
    return text;
}

void setBytes(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void setItems(benchmark::State& state, std::size_t items) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
}

// --- in --------------------------------------------------------------------------------------------------

/// Freeing the value is part of what reading costs.
void readText(benchmark::State& state, std::string_view text) {
    for ([[maybe_unused]] const auto _ : state) benchmark::DoNotOptimize(readJSON(text));
    setBytes(state, text.size());
    setItems(state, 1);
}
BENCHMARK_CAPTURE(readText, request, request)->Name("read/request");
BENCHMARK_CAPTURE(readText, catalog, catalogText())->Name("read/catalog");
BENCHMARK_CAPTURE(readText, reply8MB, largeReply())->Name("read/reply8MB")->Unit(benchmark::kMillisecond);

void decodeReply(benchmark::State& state, std::string_view text) {
    for ([[maybe_unused]] const auto _ : state) benchmark::DoNotOptimize(JSONValue::decode(text));
    setBytes(state, text.size());
    setItems(state, 1);
}
BENCHMARK_CAPTURE(decodeReply, small, R"({"ok":true,"result":{"repoId":"local-1","clean":true,"ahead":2}})")
    ->Name("decode/small");
BENCHMARK_CAPTURE(decodeReply, reply8MB, largeReply())
    ->Name("decode/reply8MB")
    ->Unit(benchmark::kMillisecond);

/// A value that nobody shares has to be made anew for each conversion, so reading it is measured with it; the
/// difference to "read" is the conversion.
void convertParams(benchmark::State& state, std::string_view text) {
    for ([[maybe_unused]] const auto _ : state) benchmark::DoNotOptimize(JSONValue::from(readJSON(text)));
    setBytes(state, text.size());
    setItems(state, 1);
}
BENCHMARK_CAPTURE(convertParams, request, request)->Name("readAndConvert/request");
BENCHMARK_CAPTURE(convertParams, catalog, catalogText())->Name("readAndConvert/catalog");
BENCHMARK_CAPTURE(convertParams, reply8MB, largeReply())
    ->Name("readAndConvert/reply8MB")
    ->Unit(benchmark::kMillisecond);

// --- look-up ---------------------------------------------------------------------------------------------

/// Every key of an object in turn, and one that is not there.
void findMembers(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<JSONValue> members;
    std::vector<std::string> keys;
    for (std::size_t member = 0; member < count; ++member) {
        keys.push_back("member" + std::to_string(member * 7919 % 1000));
        members.emplace_back(keys.back());
        members.emplace_back(member);
    }
    keys.emplace_back("absent");
    const JSONValue object = JSONValue::object(members);
    if (object.members().size() != count) return state.SkipWithError("keys are not unique");

    for ([[maybe_unused]] const auto _ : state) {
        for (const std::string& key : keys) benchmark::DoNotOptimize(object.find(key));
    }
    setItems(state, keys.size());
}
BENCHMARK(findMembers)->Name("find")->ArgName("members")->Arg(4)->Arg(16)->Arg(40)->Arg(200);

// --- out -------------------------------------------------------------------------------------------------

void write(benchmark::State& state, const JSONValue& value, std::size_t items) {
    const std::size_t size = value.jsonString().size();
    for ([[maybe_unused]] const auto _ : state) benchmark::DoNotOptimize(value.jsonString());
    setBytes(state, size);
    setItems(state, items);
}

void writeText(benchmark::State& state, std::string_view text) { write(state, readJSON(text), 1); }
BENCHMARK_CAPTURE(writeText, request, request)->Name("write/request");
BENCHMARK_CAPTURE(writeText, catalog, catalogText())->Name("write/catalog");
BENCHMARK_CAPTURE(writeText, reply8MB, largeReply())->Name("write/reply8MB")->Unit(benchmark::kMillisecond);

/// The reply once more, as it leaves: a text inside a text, where every quote is escaped.
void writeEmbedded(benchmark::State& state) { write(state, largeReply(), 1); }
BENCHMARK(writeEmbedded)->Name("write/replyAsText8MB")->Unit(benchmark::kMillisecond);

/// A thousand strings of about sixty bytes, made of the given piece.
void writeStrings(benchmark::State& state, std::string_view piece) {
    std::string text;
    while (text.size() < 60) text += piece;
    std::vector<JSONValue> strings(1000, JSONValue(text));
    write(state, JSONValue::array(strings), 1000);
}
BENCHMARK_CAPTURE(writeStrings, plain, "/Users/someone/repository ")->Name("write/strings/plain");
BENCHMARK_CAPTURE(writeStrings, escapes, "said \"later\"\n")->Name("write/strings/escapes");
BENCHMARK_CAPTURE(writeStrings, controls, "\x01\x02\x03")->Name("write/strings/controls");
BENCHMARK_CAPTURE(writeStrings, accents, "Größe geprüft ")->Name("write/strings/accents");
BENCHMARK_CAPTURE(writeStrings, wide, "検査済み")->Name("write/strings/wide");

void writeNumbers(benchmark::State& state, JSONValue (*number)(std::int64_t index)) {
    std::vector<JSONValue> numbers;
    for (std::int64_t index = 0; index < 1000; ++index) numbers.push_back(number(index));
    write(state, JSONValue::array(numbers), 1000);
}
JSONValue smallInt(std::int64_t index) { return index; }
JSONValue largeInt(std::int64_t index) { return (index - 500) * 9'007'199'254'740'993; }
JSONValue shortDouble(std::int64_t index) { return static_cast<double>(index) / 4 + 0.25; }
JSONValue longDouble(std::int64_t index) { return static_cast<double>(index + 1) / 3; }
BENCHMARK_CAPTURE(writeNumbers, smallInts, smallInt)->Name("write/ints/small");
BENCHMARK_CAPTURE(writeNumbers, largeInts, largeInt)->Name("write/ints/large");
BENCHMARK_CAPTURE(writeNumbers, shortDoubles, shortDouble)->Name("write/doubles/short");
BENCHMARK_CAPTURE(writeNumbers, longDoubles, longDouble)->Name("write/doubles/long");

}  // namespace
