// Samples.hpp: files to read, built from small parts. Every sample asks for the key K; `nothing`
// stands for an unreadable file as well as for a missing string.

#pragma once

#include "PropertyList/PropertyList.hpp"

#include <cstddef>
#include <cstdint>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::samples {

using namespace std::string_literals;

using Answer = std::optional<std::string>;
inline const Answer nothing;

struct Sample {
    std::string what;
    std::string file;
    Answer answer;
};

inline Answer read(const std::string& file) { return stringInPropertyList(file, "K"); }

inline void check(const std::vector<Sample>& samples) {
    for (const Sample& sample : samples) EXPECT_EQ(read(sample.file), sample.answer) << sample.what;
}

inline void checkRefused(const std::vector<std::string>& files) {
    for (const std::string& file : files) EXPECT_EQ(read(file), nothing) << file.substr(0, 200);
}

inline std::string repeated(std::string_view part, std::size_t count) {
    std::string text;
    text.reserve(part.size() * count);
    for (; count > 0; --count) text += part;
    return text;
}

inline std::string xml(const std::string& pairs) {
    return "<plist version=\"1.0\"><dict>" + pairs + "</dict></plist>";
}

/// A file whose K is a string element with this content.
inline std::string xmlString(const std::string& content) {
    return xml("<key>K</key><string>" + content + "</string>");
}

/// A file whose K is valid and which also holds this element.
inline std::string xmlWith(const std::string& value) {
    return xml("<key>K</key><string>v</string><key>x</key>" + value);
}

/// Two bytes for each byte of an ASCII text.
inline std::string utf16(std::string_view ascii, bool isBigEndian) {
    std::string bytes;
    for (const char letter : ascii)
        bytes += isBigEndian ? std::string{'\0', letter} : std::string{letter, '\0'};
    return bytes;
}

inline std::string bigEndian(std::uint64_t value, std::size_t size) {
    std::string bytes;
    while (size-- > 0) bytes += size < 8 ? static_cast<char>(value >> (8 * size)) : '\0';
    return bytes;
}

/// A whole file of these objects, with two bytes per reference.
inline std::string binary(const std::vector<std::string>& objects, std::uint64_t top = 0,
                          std::uint8_t offsetSize = 4) {
    std::string file = "bplist00";
    std::string table;
    for (const std::string& object : objects) {
        table += bigEndian(file.size(), offsetSize);
        file += object;
    }
    const std::uint64_t tableStart = file.size();
    return file + table + bigEndian(offsetSize, 7) + "\2" + bigEndian(objects.size(), 8) + bigEndian(top, 8) +
           bigEndian(tableStart, 8);
}

/// A reference to the object at this index.
inline std::string ref(std::uint64_t index) { return bigEndian(index, 2); }

/// A file whose K is valid and which also holds this object as number 4; it may refer to `further` ones, from 5
/// on.
inline std::string binaryWith(const std::string& object, const std::vector<std::string>& further = {}) {
    const std::string gap(32, '.');  // so that all objects together are shorter than the file lets them be
    std::vector<std::string> objects = {"\xD2" + ref(1) + ref(3) + ref(2) + ref(4), "\x51K", "\x51v" + gap,
                                        "\x51x", object};
    objects.insert(objects.end(), further.begin(), further.end());
    return binary(objects);
}

/// A file whose K is this object.
inline std::string binaryValue(const std::string& object) {
    return binary({"\xD1" + ref(1) + ref(2), "\x51K", object});
}

// One whole file of each form.

inline const std::string xmlSample = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Example//DTD PLIST 1.0//EN" "http://www.example.com/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>a</key>
	<array><string>x</string><integer>1</integer></array>
	<key>K</key>
	<string>1.2.3</string>
</dict>
</plist>)";

inline const std::string binarySample = "bplist00"
                                        "\xD2\x01\x03\x02\x04"      // 0 at 08: {1: 2, 3: 4}
                                        "\x51K"                     // 1 at 0D
                                        "\x55\x31.2.3"              // 2 at 0F
                                        "\x51x"                     // 3 at 15
                                        "\xA1\x05"                  // 4 at 17: (5)
                                        "\x10\x07"                  // 5 at 19
                                        "\x08\x0D\x0F\x15\x17\x19"  // offset table at 1B
                                        "\0\0\0\0\0\0\x01\x01"      // one byte per offset, one per reference
                                        "\0\0\0\0\0\0\0\x06"        // six objects
                                        "\0\0\0\0\0\0\0\0"          // the top one is object 0
                                        "\0\0\0\0\0\0\0\x1B"s;

inline const std::string textSample = "// written by hand\n{ a = (x, 1, <00ff>); K = \"1.2.3\"; }";

}  // namespace tidewell::samples
