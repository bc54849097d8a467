// UTF8.hpp: what the program needs to know of UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing
// above U+10FFFF).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tidewell {

/// The length (2 to 4) of the well-formed sequence outside ASCII at the start of `text`; 0 when there is
/// none.
constexpr std::size_t multibyteLength(std::string_view text) noexcept {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const auto continues = [&](std::size_t at, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return at < text.size() && byte(at) >= low && byte(at) <= high;
    };
    if (text.empty()) return 0;
    const unsigned char lead = byte(0);
    if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;   // below: overlong
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;  // above: surrogates
        return continues(1, low, high) && continues(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;   // below: overlong
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;  // above: beyond U+10FFFF
        return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

/// The most bytes that writeScalar() takes.
inline constexpr std::size_t longestScalar = 4;

/// Writes one Unicode scalar value to `at` and returns the end of it.
constexpr char* writeScalar(char* at, std::uint32_t scalar) noexcept {
    const auto put = [&](std::uint32_t byte) { *at++ = static_cast<char>(byte); };
    if (scalar < 0x80) {
        put(scalar);
        return at;
    }
    if (scalar < 0x800) {
        put(0xC0 | scalar >> 6);
    } else {
        if (scalar < 0x10000) {
            put(0xE0 | scalar >> 12);
        } else {
            put(0xF0 | scalar >> 18);
            put(0x80 | (scalar >> 12 & 0x3F));
        }
        put(0x80 | (scalar >> 6 & 0x3F));
    }
    put(0x80 | (scalar & 0x3F));
    return at;
}

inline void appendScalar(std::string& text, std::uint32_t scalar) {
    std::array<char, longestScalar> bytes;
    text.append(bytes.data(), writeScalar(bytes.data(), scalar));
}

/// `text` with U+FFFD in place of every byte that belongs to no well-formed sequence.
inline std::string repairedUTF8(std::string_view text) {
    std::string repaired;
    while (!text.empty()) {
        const bool ascii = static_cast<unsigned char>(text.front()) < 0x80;
        const std::size_t length = ascii ? 1 : multibyteLength(text);
        if (length == 0) {
            appendScalar(repaired, 0xFFFD);
        } else {
            repaired += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return repaired;
}

}  // namespace tidewell
