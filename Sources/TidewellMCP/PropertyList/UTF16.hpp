// UTF16.hpp: UTF-16 into UTF-8. A lone surrogate becomes the three bytes that UTF-8 forbids: an answer that
// holds one is refused, but a value that nobody asked for may hold one.

#pragma once

#include "Base/UTF8.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tidewell::propertylist {

/// Appends one unit; a low surrogate is joined with the high one that `text` ends with.
inline void appendUnit(std::string& text, char16_t unit) {
    const std::string_view last =
        std::string_view(text).substr(text.size() - std::min<std::size_t>(text.size(), 3));
    const bool isLow = (unit & 0xFC00) == 0xDC00;
    const bool followsHigh = last.starts_with('\xED') && (last[1] & 0xF0) == 0xA0;
    if (!isLow || !followsHigh) return appendScalar(text, unit);
    const int high = (last[1] & 0x0F) << 6 | (last[2] & 0x3F);
    text.resize(text.size() - 3);
    appendScalar(text, static_cast<std::uint32_t>(0x10000 + (high << 10 | (unit & 0x3FF))));
}

/// An even number of bytes.
inline std::string fromUTF16(std::string_view bytes, bool isBigEndian) {
    std::string text;
    for (; !bytes.empty(); bytes.remove_prefix(2)) {
        const auto first = static_cast<unsigned char>(bytes[0]);
        const auto second = static_cast<unsigned char>(bytes[1]);
        appendUnit(text, static_cast<char16_t>(isBigEndian ? first << 8 | second : second << 8 | first));
    }
    return text;
}

}  // namespace tidewell::propertylist
