#include "Base/LineBuffer.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell {
namespace {

std::vector<std::string> linesOf(std::string_view bytes, std::size_t pieceSize) {
    LineBuffer buffer;
    std::vector<std::string> lines;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(pieceSize, bytes.size()))) {
        buffer.append(bytes.substr(0, pieceSize));
        while (const auto line = buffer.nextLine()) lines.emplace_back(*line);
    }
    return lines;
}

TEST(LineBuffer, AnEmptyBufferHasNoLine) {
    LineBuffer buffer;
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    buffer.append("");
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
}

TEST(LineBuffer, TheLineFeedIsNoPartOfTheLine) {
    EXPECT_EQ(linesOf("a\n", 2), (std::vector<std::string>{"a"}));
}

TEST(LineBuffer, EmptyLinesAreLinesAndCarriageReturnsStay) {
    EXPECT_EQ(linesOf("\n\na\r\n", 99), (std::vector<std::string>{"", "", "a\r"}));
}

TEST(LineBuffer, ALineWithoutItsLineFeedWaits) {
    LineBuffer buffer;
    buffer.append("ab");
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    buffer.append("c\nd");
    EXPECT_EQ(buffer.nextLine(), "abc");
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    buffer.append("\n");
    EXPECT_EQ(buffer.nextLine(), "d");
}

TEST(LineBuffer, HowTheBytesArrivedCannotBeSeen) {
    std::string bytes;
    for (std::size_t length = 0; length < 200; ++length) bytes += std::string(length % 67, 'x') + "é\n";
    const auto expected = linesOf(bytes, bytes.size());
    EXPECT_EQ(expected.size(), 200U);
    for (const std::size_t pieceSize : {1U, 2U, 3U, 7U, 64U, 4095U, 4096U}) {
        EXPECT_EQ(linesOf(bytes, pieceSize), expected) << pieceSize;
    }
}

TEST(LineBuffer, AnUnusuallyLongLineLeavesTheShortOnesBehindItIntact) {
    LineBuffer buffer;
    const std::string longLine(3 << 20, 'x');
    buffer.append(longLine);
    buffer.append("\nshort");
    EXPECT_EQ(buffer.nextLine(), longLine);
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    buffer.append(" line\nnext\n");
    EXPECT_EQ(buffer.nextLine(), "short line");
    EXPECT_EQ(buffer.nextLine(), "next");
}

TEST(LineBuffer, MemoryOfAnUnusuallyLongLineIsGivenBack) {
    LineBuffer buffer;
    buffer.append(std::string(16 << 20, 'x'));
    buffer.append("\n");
    EXPECT_TRUE(buffer.nextLine().has_value());
    EXPECT_GE(buffer.capacity(), 16U << 20);
    buffer.append("short\n");
    EXPECT_EQ(buffer.nextLine(), "short");
    EXPECT_LE(buffer.capacity(), 1U << 20);
}

}  // namespace
}  // namespace tidewell
