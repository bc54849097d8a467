// CannedReply.hpp: what the canned host app answers, the same bytes in every run.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace tidewell::bench {

/// One object of ten members: five strings (every fourth text with escapes, every fourth owner beyond ASCII)
/// and five numbers (three integers, two doubles, one of them with all its digits).
inline std::string cannedRecord(std::size_t at) {
    constexpr std::array<const char*, 4> owners = {"tide-and-well", "Jörg Łukasiewicz", "acme-incorporated",
                                                   "river"};
    constexpr std::array<const char*, 4> texts = {
        "Keeps the inventory of every checkout and its remote, day by day",
        "Small tools for the harbour office, their tests and their papers",
        "The \\\"second\\\" line\\nis here,\\tand a path: C:\\\\Users\\\\harbour",
        "Experiments with tides, levels and the well behind the old house"};
    const auto mixed = static_cast<std::uint32_t>(at * 2654435761U);
    std::array<char, 640> text{};
    const int size = std::snprintf(
        text.data(), text.size(),
        "{\"repoId\":\"r%08zx\",\"path\":\"/home/user/projects/group-%zu/repository-%zu\",\"owner\":\"%s\","
        "\"description\":\"%s\",\"branch\":\"feature/%u\",\"ahead\":%zu,\"size\":%u,\"pushedAt\":%zu,"
        "\"health\":%.15g,\"share\":%.15g}",
        at, at % 97, at, owners[at % 4], texts[at % 4], mixed % 1000, at % 7, mixed, 1735689600000 + at * 61,
        0.5 + static_cast<double>(at % 800) / 8, 1 + mixed / 4294967296.0);
    return {text.data(), static_cast<std::size_t>(size)};
}

/// As many elements as it takes for about `size` bytes.
template <typename Element>
std::string filled(std::string text, std::size_t size, Element element, std::string_view end) {
    text.reserve(size + 2048);
    for (std::size_t at = 0; text.size() < size; ++at) {
        if (at > 0) text += ',';
        text += element(at);
    }
    return text.append(end);
}

/// The "result" of a reply of about `size` bytes.
inline std::string cannedResult(std::size_t size) {
    return filled("{\"repositories\":[", size, cannedRecord, "]}");
}

/// A reply line, its line feed included.
inline std::string cannedReply(std::size_t size) {
    return "{\"ok\":true,\"result\":" + cannedResult(size) + "}\n";
}

inline constexpr std::size_t smallSize = 200;
inline constexpr std::size_t megabyte = 1 << 20;

}  // namespace tidewell::bench
