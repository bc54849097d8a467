// Wrapping.hpp: property lists with one known key and value, and the character sets they come in. Written
// independently of the program's code, so that the two can be compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell::fuzzing {

/// UTF-8 as UTF-16 units, or nothing when it is not well-formed.
inline std::optional<std::u16string> utf16(std::string_view text) {
    std::u16string units;
    for (std::size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at++]);
        const int more = lead < 0x80   ? 0
                         : lead < 0xC0 ? -1
                         : lead < 0xE0 ? 1
                         : lead < 0xF0 ? 2
                         : lead < 0xF8 ? 3
                                       : -1;
        if (more < 0) return std::nullopt;
        char32_t scalar = more == 0 ? lead : lead & (0x3Fu >> more);
        for (int left = more; left > 0; --left, ++at) {
            if (at == text.size() || (text[at] & 0xC0) != 0x80) return std::nullopt;
            scalar = scalar << 6 | (static_cast<unsigned char>(text[at]) & 0x3Fu);
        }
        constexpr char32_t smallest[] = {0, 0x80, 0x800, 0x10000};
        const bool isSurrogate = scalar >= 0xD800 && scalar <= 0xDFFF;
        if (scalar < smallest[more] || scalar > 0x10FFFF || isSurrogate) return std::nullopt;
        if (scalar > 0xFFFF) {
            units += static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10));
            units += static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF));
        } else {
            units += static_cast<char16_t>(scalar);
        }
    }
    return units;
}

inline std::string bytesOf(const std::u16string& units, bool isBigEndian) {
    std::string bytes;
    for (const char16_t unit : units) {
        const auto high = static_cast<char>(unit >> 8);
        const auto low = static_cast<char>(unit & 0xFF);
        bytes += isBigEndian ? high : low;
        bytes += isBigEndian ? low : high;
    }
    return bytes;
}

inline std::string inXML(std::string_view key, std::string_view value) {
    const auto escaped = [](std::string_view text) {
        std::string out;
        for (const char byte : text)
            out += byte == '<' ? "&lt;" : byte == '&' ? "&#38;" : std::string(1, byte);
        return out;
    };
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
           "version=\"1.0\">\n<dict><key>other</key><true/>\n<key>" +
           escaped(key) + "</key><string>" + escaped(value) + "</string></dict></plist>\n";
}

/// Every unit of the value is written as an escape.
inline std::string inText(std::string_view bareKey, const std::u16string& value) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string file = "{ other = (a, <00>); " + std::string(bareKey) + " = \"";
    for (const char16_t unit : value) {
        file += "\\U";
        for (int shift = 12; shift >= 0; shift -= 4) file += digits[unit >> shift & 0xF];
    }
    return file + "\"; }";
}

/// The dictionary, its key and its value, all strings in UTF-16, with four bytes for each count and offset.
inline std::string inBinary(const std::u16string& key, const std::u16string& value) {
    const auto number = [](std::size_t size, std::uint64_t amount) {
        std::string bytes;
        while (size-- > 0) bytes += static_cast<char>(amount >> (8 * size) & 0xFF);
        return bytes;
    };
    const auto string = [&](const std::u16string& units) {
        return "\x6F\x12" + number(4, units.size()) + bytesOf(units, true);
    };
    const std::string header = "bplist00";
    const std::string dictionary = "\xD1\x01\x02";
    const std::string keyObject = string(key);
    const std::string objects = header + dictionary + keyObject + string(value);
    const std::uint64_t first = header.size();
    const std::uint64_t second = first + dictionary.size();
    const std::string table = number(4, first) + number(4, second) + number(4, second + keyObject.size());
    return objects + table + std::string(6, '\0') + "\x04\x01" + number(8, 3) + number(8, 0) +
           number(8, objects.size());
}

}  // namespace tidewell::fuzzing
