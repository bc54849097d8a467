// MicroLines.cpp: cutting lines out of bytes that arrive 4096 at a time, as the server reads them.
#include "Base/LineBuffer.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace {

using namespace tidewell;

constexpr std::size_t chunkSize = 4096;

/// Lines of the given length, line feed included: one line, or as many as fill a megabyte.
void cutLines(benchmark::State& state) {
    const auto length = static_cast<std::size_t>(state.range(0));
    const std::size_t wanted = std::max<std::size_t>(1, (std::size_t{1} << 20) / length);
    std::string input;
    for (std::size_t line = 0; line < wanted; ++line) input += std::string(length - 1, 'x') + '\n';

    for ([[maybe_unused]] const auto _ : state) {
        LineBuffer buffer;
        std::size_t found = 0;
        for (std::string_view rest = input; !rest.empty();
             rest.remove_prefix(std::min(chunkSize, rest.size()))) {
            buffer.append(rest.substr(0, chunkSize));
            while (const auto line = buffer.nextLine()) {
                benchmark::DoNotOptimize(line->data());
                ++found;
            }
        }
        if (found != wanted) state.SkipWithError("lines were lost");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(wanted));
}
BENCHMARK(cutLines)->Name("lines")->ArgName("length")->Arg(40)->Arg(200)->Arg(4096)->Arg(17 << 10)->Arg(
    8 << 20);

}  // namespace
