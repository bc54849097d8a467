#include "Base/Descriptor.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <array>
#include <utility>

namespace tidewell::test {
namespace {

bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

TEST(Descriptor, IsClosedWithItsOwner) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    {
        Descriptor first(ends[0]);
        const Descriptor second(ends[1]);
        const Descriptor movedTo(std::move(first));
        EXPECT_FALSE(first.isOpen());
        EXPECT_EQ(movedTo.get(), ends[0]);
        EXPECT_TRUE(second.isOpen());
        EXPECT_TRUE(isOpen(ends[0]) && isOpen(ends[1]));
    }
    EXPECT_FALSE(isOpen(ends[0]) || isOpen(ends[1]));
}

// A new descriptor gets this number when standard input is closed.
TEST(Descriptor, ZeroIsADescriptorLikeAnyOther) {
    const int kept = ::dup(STDIN_FILENO);
    const int other = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::dup2(other, STDIN_FILENO), STDIN_FILENO);
    if (other != STDIN_FILENO) ::close(other);
    { EXPECT_TRUE(Descriptor(STDIN_FILENO).isOpen()); }
    EXPECT_FALSE(isOpen(STDIN_FILENO));
    if (kept >= 0) {
        ::dup2(kept, STDIN_FILENO);
        ::close(kept);
    }
}

}  // namespace
}  // namespace tidewell::test
