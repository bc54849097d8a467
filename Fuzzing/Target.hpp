// Target.hpp: what every fuzz target is made of: one entry point, and a way to report a broken promise.
//
// A target's main program is libFuzzer's, or StandaloneMain.cpp, which runs the files it is given once each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// Tries one input: `size` bytes at `data`, which is null when there are none. Returns 0, or ends the
/// process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tidewell::fuzzing {

inline std::string_view textOf(const std::uint8_t* data, std::size_t size) {
    return size == 0 ? std::string_view() : std::string_view(reinterpret_cast<const char*>(data), size);
}

/// Ends the process, as a crash that the fuzzer keeps, unless the promise was kept. `seen` is what broke it.
inline void require(bool isKept, const char* promise, std::string_view seen = {}) {
    if (isKept) return;
    std::fprintf(stderr, "Broken promise: %s\n%.*s\n", promise, static_cast<int>(seen.size()), seen.data());
    std::abort();
}

}  // namespace tidewell::fuzzing
