// JSONText.hpp: what the reader and the writer share about the inside of JSON strings.
#pragma once

#include "Base/UTF8.hpp"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tidewell {

// always_inline, here and in JSONReader.hpp: the optimizer's budget for the whole program ends before these few, which
// every byte passes. Without it a reply of 8 MB takes 8 % longer.

/// Whether a byte stands for itself inside a JSON string, in both directions: ASCII, no control character,
/// neither quote nor backslash.
constexpr bool isPlain(char byte) noexcept {
    const auto code = static_cast<unsigned char>(byte);
    return code >= 0x20 && code < 0x80 && code != '"' && code != '\\';
}

/// The first byte of [at, end) that is not plain, or `end`. Eight bytes at a time: strings are most of a
/// message, and most of a string is plain.
[[gnu::always_inline]] inline const char* skipPlain(const char* at, const char* end) noexcept {
    constexpr std::uint64_t ones = 0x0101010101010101;
    constexpr std::uint64_t highs = ones * 0x80;
    static_assert(std::endian::native == std::endian::little, "the lowest byte of a word is the first");
    while (end - at >= 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, at, sizeof word);
        // A high bit set: not ASCII, or a borrow out of "minus 0x20" (control character) or out of "minus
        // one" of a zero byte (quote, backslash). A false alarm needs a true one below it, so the lowest is
        // true.
        const std::uint64_t quotes = word ^ (ones * '"');
        const std::uint64_t backslashes = word ^ (ones * '\\');
        const std::uint64_t alarms =
            (word | (word - ones * 0x20) | (quotes - ones) | (backslashes - ones)) & highs;
        if (alarms != 0) return at + std::countr_zero(alarms) / 8;
        at += 8;
    }
    while (at != end && isPlain(*at)) ++at;
    return at;
}

/// The rest of skipVerbatim(), from a byte outside ASCII on. Apart from it, so that the usual case stays short enough to
/// be inlined.
const char* skipVerbatimBeyondASCII(const char* at, const char* end) noexcept;

/// The first byte of [at, end) that may not stand in a JSON string as it is, or begins something that is not
/// well-formed UTF-8; or `end`.
[[gnu::always_inline]] inline const char* skipVerbatim(const char* at, const char* end) noexcept {
    at = skipPlain(at, end);
    if (at == end || static_cast<unsigned char>(*at) < 0x80) return at;
    return skipVerbatimBeyondASCII(at, end);
}

}  // namespace tidewell
