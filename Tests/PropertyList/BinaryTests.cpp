#include "PropertyList/Samples.hpp"

namespace tidewell {
namespace {

using namespace samples;

TEST(PropertyListBinary, BothKindsOfStringAreRead) {
    const std::string twenty = "abcdefghijklmnopqrst";
    check({{"ASCII", binaryValue("\x53\x31.2"), "1.2"},
           {"ASCII with a NUL",
            binaryValue("\x53"
                        "a\0b"s),
            "a\0b"s},
           {"sized by one byte", binaryValue("\x5F\x10\x14" + twenty), twenty},
           {"sized by two", binaryValue("\x5F\x11" + bigEndian(20, 2) + twenty), twenty},
           {"sized by four", binaryValue("\x5F\x12" + bigEndian(20, 4) + twenty), twenty},
           {"sized by eight", binaryValue("\x5F\x13" + bigEndian(20, 8) + twenty), twenty},
           {"small, but sized apart", binaryValue("\x5F\x10\x01v"), "v"},
           {"UTF-16", binaryValue("\x62\0v\x20\xAC"s), "v€"},
           {"UTF-16, a pair", binaryValue("\x62\xD8\x3D\xDE\x00"s), "😀"},
           {"a UTF-16 key", binary({"\xD1" + ref(1) + ref(2), "\x61\0K"s, "\x51v"}), "v"},
           {"UTF-16, a lone high surrogate", binaryValue("\x61\xD8\x3D"), nothing},
           {"UTF-16, a lone low surrogate", binaryValue("\x61\xDE\x00"s), nothing},
           {"UTF-16, a pair the wrong way round", binaryValue("\x62\xDE\x00\xD8\x3D"s), nothing},
           {"a lone surrogate that nobody asked for", binaryWith("\x61\xD8\x3D"), "v"},
           {"ASCII with another byte", binaryValue("\x51\x80"), nothing},
           {"ASCII with another byte that nobody asked for", binaryWith("\x51\x80"), nothing}});
}

TEST(PropertyListBinary, EveryKindOfObjectIsRead) {
    const std::vector<std::string> objects = {"\x00"s,
                                              "\x08",
                                              "\x09",
                                              "\x10\x01",
                                              "\x11\x01\x02",
                                              "\x12" + bigEndian(1, 4),
                                              "\x13" + bigEndian(1, 8),
                                              "\x14" + bigEndian(0, 8) + bigEndian(1, 8),
                                              "\x22" + bigEndian(0, 4),
                                              "\x23" + bigEndian(0, 8),
                                              "\x33" + bigEndian(0, 8),
                                              "\x40",
                                              "\x42\xFF\x00"s,
                                              "\x4F\x10\x02\xFF\x00"s,
                                              "\x80\xFF",
                                              "\x83\xFF\xFF\xFF\xFF",
                                              "\x87" + bigEndian(0xFFFFFFFF, 8),
                                              "\xA0",
                                              "\xA2" + ref(1) + ref(1),
                                              "\xAF\x10\x01" + ref(1),
                                              "\xC0",
                                              "\xC1" + ref(1),
                                              "\xD0",
                                              "\xD1" + ref(1) + ref(2),
                                              "\xDF\x10\x01" + ref(1) + ref(2)};
    for (const std::string& object : objects)
        EXPECT_EQ(read(binaryWith(object)), "v") << testing::PrintToString(object);
}

TEST(PropertyListBinary, ABrokenObjectMakesTheFileUnreadable) {
    const std::vector<std::string> objects = {"",
                                              "\x01",
                                              "\x0F",
                                              "\x15" + repeated("\1", 32),
                                              "\x1F" + repeated("\1", 32),
                                              "\x20\x01",
                                              "\x21\x01\x02",
                                              "\x24" + repeated("\1", 16),
                                              "\x32" + bigEndian(0, 4),
                                              "\x34" + repeated("\1", 16),
                                              "\x70",
                                              "\x71v",
                                              "\x90",
                                              "\xB0",
                                              "\xE0",
                                              "\xF0",
                                              "\x10",
                                              "\x23\x01",
                                              "\x33" + bigEndian(0, 7),
                                              "\x42\xFF",
                                              "\x52x",
                                              "\x61x",
                                              "\x87" + bigEndian(0x100000000, 8),
                                              "\x84\x01" + bigEndian(0, 4),
                                              "\xA1",
                                              "\xA1\x01",
                                              "\xA1" + ref(5),
                                              "\xA1" + ref(0xFFFF),
                                              "\xD1" + ref(1),
                                              "\xD1" + ref(4) + ref(1),
                                              "\xDF",
                                              "\x5F\x00\x01v"s,
                                              "\x5F\x13" + bigEndian(0, 7),
                                              "\x5F",
                                              "\x5F\x10",
                                              "\x5F\x51x",
                                              "\x5F\x14" + repeated("\0"s, 16),
                                              "\x5F\x13" + bigEndian(std::uint64_t{1} << 63, 8),
                                              "\x6F\x13" + bigEndian(std::uint64_t{1} << 63, 8),
                                              "\xAF\x13" + bigEndian(std::uint64_t{1} << 63, 8),
                                              "\xDF\x13" + bigEndian(std::uint64_t{1} << 62, 8),
                                              "\x4F\x13" + bigEndian(~std::uint64_t{0}, 8)};
    for (const std::string& object : objects)
        EXPECT_EQ(read(binaryWith(object)), nothing) << testing::PrintToString(object);
}

TEST(PropertyListBinary, AnUnreachableObjectDoesNotMatter) {
    EXPECT_EQ(read(binaryWith("\x09", {"\x70"})), "v");
}

TEST(PropertyListBinary, KeysMustBeStrings) {
    checkRefused({binaryWith("\xD1" + ref(5) + ref(1), {"\x10\x01"}),
                  binary({"\xD2" + ref(1) + ref(3) + ref(2) + ref(2), "\x51K", "\x51v", "\xA0"})});
}

TEST(PropertyListBinary, TheTrailerMustFitTheFile) {
    const std::size_t trailer = binarySample.size() - 32;
    struct Damage {
        const char* what;
        std::size_t at;
        std::string bytes;
    };
    const std::vector<Damage> damages = {
        {"offsets of no bytes", trailer + 6, "\0"s},
        {"offsets of two bytes", trailer + 6, "\2"},
        {"offsets of nine bytes", trailer + 6, "\x09"},
        {"references of no bytes", trailer + 7, "\0"s},
        {"references of two bytes", trailer + 7, "\2"},
        {"references of nine bytes", trailer + 7, "\x09"},
        {"no objects", trailer + 8, bigEndian(0, 8)},
        {"an object less", trailer + 8, bigEndian(5, 8)},
        {"an object more", trailer + 8, bigEndian(7, 8)},
        {"as many objects as there can be", trailer + 8, bigEndian(~std::uint64_t{0}, 8)},
        {"the top object past the last", trailer + 16, bigEndian(6, 8)},
        {"the top object far off", trailer + 16, bigEndian(~std::uint64_t{0}, 8)},
        {"the table a byte early", trailer + 24, bigEndian(0x1A, 8)},
        {"the table a byte late", trailer + 24, bigEndian(0x1C, 8)},
        {"the table in the header", trailer + 24, bigEndian(7, 8)},
        {"the number of objects wrong in its first byte", trailer + 8, "\1"},
        {"the top object wrong in its first byte", trailer + 16, "\1"},
        {"the table wrong in its first byte", trailer + 24, "\1"},
        {"the table far off", trailer + 24, bigEndian(~std::uint64_t{0}, 8)},
        {"an offset in the header", 0x1D, "\0"s},
        {"an offset in the table", 0x1C, "\x1B"},
        {"an offset far off", 0x1C, "\xFF"}};
    for (const Damage& damage : damages) {
        std::string file = binarySample;
        EXPECT_EQ(read(file.replace(damage.at, damage.bytes.size(), damage.bytes)), nothing) << damage.what;
    }
}

TEST(PropertyListBinary, NothingStandsBetweenTheTableAndTheTrailer) {
    const std::string file = binaryValue("\x51v");
    for (const std::size_t size : {0u, 1u, 4u, 8u})
        EXPECT_EQ(read(std::string(file).insert(file.size() - 32, size, '\x08')),
                  size == 0 ? Answer("v") : nothing);
}

TEST(PropertyListBinary, ATableInsideTheTrailerIsRefused) {
    // The table begins at the trailer's second byte, so its size comes out as minus one, and the trailer claims
    // exactly that many objects.
    const std::string objects = "\xD1" + bigEndian(1, 8) + bigEndian(2, 8) + "\x51K\x51v";  // at 8, 25, 27
    const std::uint64_t trailer = 8 + objects.size();
    EXPECT_EQ(read("bplist00" + objects + "\0\x08\x19\x1B\0\0\1\x08"s + bigEndian(~std::uint64_t{0}, 8) +
                   bigEndian(0, 8) + bigEndian(trailer + 1, 8)),
              nothing);
}

TEST(PropertyListBinary, AnIndexPastTheTableDoesNotReachIntoTheTrailer) {
    std::string file = binarySample;
    file[0x18] = '\x06';              // the array's only element, past the last object,
    file[file.size() - 32] = '\x19';  // and where its offset would be, that of an integer
    EXPECT_EQ(read(file), nothing);
}

TEST(PropertyListBinary, OffsetsAndReferencesHaveUpToEightBytes) {
    for (std::uint8_t size = 1; size <= 9; ++size) {
        const Answer answer = size <= 8 ? Answer("v") : nothing;
        EXPECT_EQ(read(binary({"\xD1" + ref(1) + ref(2), "\x51K", "\x51v"}, 0, size)), answer) << int{size};
        const std::string objects = "\xD1" + bigEndian(1, size) + bigEndian(2, size) + "\x51K\x51v";
        const std::uint64_t end = 8 + objects.size();
        EXPECT_EQ(read("bplist00" + objects + bigEndian(8, 1) + bigEndian(end - 4, 1) +
                       bigEndian(end - 2, 1) + bigEndian(1, 7) + bigEndian(size, 1) + bigEndian(3, 8) +
                       bigEndian(0, 8) + bigEndian(end, 8)),
                  answer)
            << int{size};
    }
}

TEST(PropertyListBinary, AReferenceMustBeAbleToNameEveryObject) {
    const auto file =
        [](std::size_t objects) {  // one byte per reference, two per offset, 0 is the dictionary
            std::string bytes = "bplist00\xD1\x01\x02\x51K\x51v";
            std::string table = bigEndian(8, 2) + bigEndian(11, 2) + bigEndian(13, 2);
            for (std::size_t index = 3; index < objects; ++index) table += bigEndian(13, 2);
            return bytes + table + "\0\0\0\0\0\0\2\1"s + bigEndian(objects, 8) + bigEndian(0, 8) +
                   bigEndian(15, 8);
        };
    EXPECT_EQ(read(file(255)), "v");
    EXPECT_EQ(read(file(256)), nothing);
}

TEST(PropertyListBinary, TheEighthByteMayBeAnyDigit) {
    std::string file = binarySample;
    EXPECT_EQ(read(file.replace(7, 1, "1")), "1.2.3");
    EXPECT_EQ(read(file.replace(7, 1, "x")), nothing);
    EXPECT_EQ(read("bplist0 = a; K = v;"), "v");  // so this is text
}

TEST(PropertyListBinary, WhatContainsItselfIsRefused) {
    checkRefused({binaryWith("\xA1" + ref(4)), binaryWith("\xA1" + ref(0)),
                  binaryWith("\xA1" + ref(5), {"\xD1" + ref(1) + ref(4)}), binaryWith("\xC1" + ref(4))});
}

TEST(PropertyListBinary, SharedObjectsAreCheckedOnce) {
    std::vector<std::string> doubled;  // 400 arrays, each twice in the one before: 2^400 paths
    for (std::size_t index = 5; index < 404; ++index)
        doubled.push_back("\xA2" + ref(index + 1) + ref(index + 1));
    doubled.push_back("\xA0");
    EXPECT_EQ(read(binaryWith("\xA2" + ref(5) + ref(5), doubled)), "v");
    EXPECT_EQ(read(binary({"\xD1" + ref(1) + ref(1), "\x51K"})), "K");
}

TEST(PropertyListBinary, OverlappingObjectsCannotMakeItSlow) {
    // 20,000 arrays begin six bytes apart and share a million references: each reads the headers of those
    // after it as references, and then zeros. Any other index means the string at 8.
    constexpr std::uint64_t arrays = 20'000;
    constexpr std::uint64_t length = 1'000'000;
    std::vector<std::uint64_t> offsets(65'000, 8);
    std::string file = "bplist00\x51K";
    offsets[1] = file.size();
    file += "\xD1" + ref(0) + ref(2);
    offsets[2] = file.size();
    file += "\xAF\x12" + bigEndian(arrays, 4);
    for (std::uint64_t index = 0; index < arrays; ++index) file += ref(20'000 + index);
    for (std::uint64_t index = 0; index < arrays; ++index) {
        offsets[20'000 + index] = file.size();
        file += "\xAF\x12" + bigEndian(length, 4);
    }
    file.append(2 * length, '\0');
    const std::uint64_t table = file.size();
    for (const std::uint64_t offset : offsets) file += bigEndian(offset, 4);
    file += "\0\0\0\0\0\0\4\2"s + bigEndian(offsets.size(), 8) + bigEndian(1, 8) + bigEndian(table, 8);
    EXPECT_EQ(read(file), nothing);
}

TEST(PropertyListBinary, OneLongKeyManyTimesCannotMakeItSlow) {
    constexpr std::uint64_t pairs = 60'000;
    constexpr std::uint64_t length = 2'000'000;
    EXPECT_EQ(read(binary({"\xDF\x12" + bigEndian(pairs, 4) + repeated(ref(1), 2 * pairs),
                           "\x6F\x12" + bigEndian(length, 4) + repeated("\0K"s, length)})),
              nothing);
}

}  // namespace
}  // namespace tidewell
