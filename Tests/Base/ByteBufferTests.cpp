#include "Base/ByteBuffer.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace tidewell {
namespace {

TEST(ByteBuffer, IsEmptyAtFirstAndHoldsNoMemory) {
    const ByteBuffer buffer;
    EXPECT_EQ(buffer.view(), "");
    EXPECT_EQ(buffer.capacity(), 0U);
}

TEST(ByteBuffer, KeepsWhatIsAppendedHoweverItGrows) {
    ByteBuffer buffer;
    std::string expected;
    for (std::size_t size = 0; expected.size() < 9'000'000; size = size * 3 + 1) {
        const std::string piece(size, static_cast<char>('a' + size % 26));
        buffer.append(piece);
        buffer.append(';');
        expected += piece + ';';
        ASSERT_EQ(buffer.size(), expected.size());
        ASSERT_LE(buffer.size(), buffer.capacity());
    }
    EXPECT_TRUE(buffer.view() == expected);
}

TEST(ByteBuffer, TakesWhatIsWrittenIntoItsRoom) {
    ByteBuffer buffer;
    buffer.append("ab");
    char* const room = buffer.room(100);
    EXPECT_EQ(buffer.view(), "ab");
    std::memcpy(room, "cdef", 4);
    buffer.endAt(room + 3);
    EXPECT_EQ(buffer.view(), "abcde");
    buffer.endAt(room - 1);
    EXPECT_EQ(buffer.view(), "a");
}

TEST(ByteBuffer, ALargeBlockFillsItsLargePagesAndTheTwoWordsOfMallocDoNotBeginAnother) {
    constexpr std::size_t largePages = std::size_t{8} << 20;
    ByteBuffer buffer;
    buffer.append(std::string(5'000'000, 'x'));
    EXPECT_LE(buffer.capacity() + 2 * sizeof(void*), largePages);
    EXPECT_GT(buffer.capacity() + 4096, largePages);
}

TEST(ByteBuffer, DropsItsFront) {
    ByteBuffer buffer;
    buffer.append("abcdef");
    buffer.dropFront(2);
    EXPECT_EQ(buffer.view(), "cdef");
    buffer.dropFront(4);
    EXPECT_EQ(buffer.view(), "");
    buffer.append("g");
    EXPECT_EQ(buffer.view(), "g");
}

TEST(ByteBuffer, ClearingKeepsTheMemoryAndShrinkingGivesItBack) {
    ByteBuffer buffer;
    buffer.append(std::string(5'000'000, 'x'));
    const std::size_t capacity = buffer.capacity();
    buffer.clear();
    EXPECT_EQ(buffer.view(), "");
    EXPECT_EQ(buffer.capacity(), capacity);
    buffer.append("abc");
    buffer.shrink();
    EXPECT_LT(buffer.capacity(), 5'000U);
    EXPECT_EQ(buffer.view(), "abc");
}

TEST(ByteBuffer, ShrinkingAnEmptyOneIsNoTrouble) {
    ByteBuffer buffer;
    buffer.shrink();
    buffer.append("abc");
    buffer.shrink();
    EXPECT_EQ(buffer.view(), "abc");
}

TEST(ByteBuffer, MovesItsContent) {
    ByteBuffer first;
    first.append("abc");
    ByteBuffer second = std::move(first);
    EXPECT_EQ(second.view(), "abc");
    ByteBuffer third;
    third.append("x");
    third = std::move(second);
    EXPECT_EQ(third.view(), "abc");
}

TEST(ByteBuffer, MoreThanThereCanBeIsRefusedAndTheContentStays) {
    ByteBuffer buffer;
    buffer.append("abc");
    EXPECT_THROW(buffer.room(static_cast<std::size_t>(PTRDIFF_MAX) - 1), std::bad_alloc);
    EXPECT_THROW(buffer.room(SIZE_MAX), std::bad_alloc);
    EXPECT_EQ(buffer.view(), "abc");
}

}  // namespace
}  // namespace tidewell
