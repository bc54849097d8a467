#include "Base/UTF8.hpp"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace tidewell {
namespace {

TEST(UTF8, EveryScalarValueIsWrittenAsAWellFormedSequence) {
    for (std::uint32_t scalar = 0x80; scalar <= 0x10FFFF; ++scalar) {
        if (scalar >= 0xD800 && scalar <= 0xDFFF) continue;
        std::string text;
        appendScalar(text, scalar);
        ASSERT_EQ(multibyteLength(text), text.size()) << scalar;
    }
}

TEST(UTF8, TheLastScalarValueTakesTheMostBytes) {
    std::array<char, 2 * longestScalar> place{};
    EXPECT_EQ(writeScalar(place.data(), 0x10FFFF), place.data() + 4);
    EXPECT_EQ(longestScalar, 4U);
}

TEST(UTF8, KnownCharactersHaveTheirKnownBytes) {
    std::string text;
    for (const std::uint32_t scalar : {0x41U, 0xE9U, 0x2014U, 0x1D11EU}) appendScalar(text, scalar);
    EXPECT_EQ(text, "A\xC3\xA9\xE2\x80\x94\xF0\x9D\x84\x9E");
}

TEST(UTF8, TwoBytesBeginASequenceOnlyIfTheyBeginAScalarValue) {
    std::vector<std::size_t> lengths(0x10000);
    const auto byte = [](char one) { return std::size_t{static_cast<unsigned char>(one)}; };
    for (std::uint32_t scalar = 0x80; scalar <= 0x10FFFF; ++scalar) {
        if (scalar >= 0xD800 && scalar <= 0xDFFF) continue;
        std::string text;
        appendScalar(text, scalar);
        lengths[byte(text[0]) << 8 | byte(text[1])] = text.size();
    }
    for (std::size_t two = 0x8000; two <= 0xFFFF; ++two) {
        const std::string start = {static_cast<char>(two >> 8), static_cast<char>(two & 0xFF)};
        const std::size_t length = lengths[two];
        ASSERT_EQ(multibyteLength(start + "\x80\xBF"), length) << two;
        for (const char* const wrong : {"\x7F\x80", "\xC0\x80"})
            ASSERT_EQ(multibyteLength(start + wrong), length == 2 ? 2U : 0U) << two;
        if (length != 4) continue;
        for (const char* const wrong : {"\x80\x7F", "\x80\xC0"})
            ASSERT_EQ(multibyteLength(start + wrong), 0U) << two;
    }
}

TEST(UTF8, IllFormedSequencesHaveNoLength) {
    for (const char* const text :
         {"", "\x80", "\xC3", "\xC1\x81", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
          "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xFE"}) {
        EXPECT_EQ(multibyteLength(text), 0U) << text;
    }
}

TEST(UTF8, RepairingReplacesOnlyWhatIsIllFormed) {
    EXPECT_EQ(repairedUTF8("/tmp/é.sock"), "/tmp/é.sock");
    EXPECT_EQ(repairedUTF8("/tmp/\xFF\xC3.sock"), "/tmp/\xEF\xBF\xBD\xEF\xBF\xBD.sock");
}

}  // namespace
}  // namespace tidewell
