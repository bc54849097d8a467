// PlatformTests.cpp: what Platform promises on every system. One program tests this system's own file,
// another one the macOS file with stand-ins for what macOS has and Linux lacks.
#include "Base/Descriptor.hpp"
#include "Base/Platform.hpp"

#include "Base/SystemCalls.hpp"
#include "Support/TemporaryFolder.hpp"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <set>

namespace tidewell::test {
namespace {

class PlatformTest : public testing::Test {
public:
    ~PlatformTest() override { systemCalls() = {}; }
};

// The home directory.

TEST_F(PlatformTest, HomeIsWhatTheEnvironmentSays) {
    ::setenv("HOME", "/somewhere/else", 1);
    EXPECT_EQ(Platform::homeDirectory(), "/somewhere/else");
}

TEST_F(PlatformTest, WithoutTheVariableHomeIsTheUsersFolder) {
    systemCalls().user = 0;  // root, which every system has
    const std::string expected = ::getpwuid(0)->pw_dir;
    ::unsetenv("HOME");
    EXPECT_EQ(Platform::homeDirectory(), expected);
    ::setenv("HOME", "", 1);
    EXPECT_EQ(Platform::homeDirectory(), expected);
}

TEST_F(PlatformTest, WithoutTheVariableAndTheUserHomeIsTheRoot) {
    systemCalls().user = 3'999'999'999;
    ASSERT_EQ(::getpwuid(*systemCalls().user), nullptr);
    ::unsetenv("HOME");
    EXPECT_EQ(Platform::homeDirectory(), "/");
}

// Sockets.

TEST_F(PlatformTest, ASocketOfItsOwnIsAStreamBetweenProcessesOfThisMachine) {
    const Descriptor socket(Platform::openStreamSocket());
    ASSERT_TRUE(socket.isOpen());
    for (const auto& [option, expected] :
         {std::pair(SO_DOMAIN, int{AF_UNIX}), std::pair(SO_TYPE, int{SOCK_STREAM})}) {
        int value = -1;
        socklen_t size = sizeof value;
        ASSERT_EQ(::getsockopt(socket.get(), SOL_SOCKET, option, &value, &size), 0);
        EXPECT_EQ(value, expected);
    }
}

TEST_F(PlatformTest, ASendAfterTheOtherSideHasHungUpIsAnErrorAndNoSignal) {
    const TemporaryFolder folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (folder / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
    const auto* const place = reinterpret_cast<const sockaddr*>(&address);
    const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(::bind(listener.get(), place, sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);

    const Descriptor socket(Platform::openStreamSocket());
    ASSERT_EQ(::connect(socket.get(), place, sizeof address), 0);
    { const Descriptor otherSide(::accept(listener.get(), nullptr, nullptr)); }
    EXPECT_EQ(Platform::sendBytes(socket.get(), "x"), -1);  // the signal would end this program
    EXPECT_EQ(errno, EPIPE);
}

// Transfers.

TEST_F(PlatformTest, WhatIsSentAndWrittenArrives) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    const Descriptor one(ends[0]);
    const Descriptor other(ends[1]);
    EXPECT_EQ(Platform::sendBytes(one.get(), "sent, "), 6);
    EXPECT_EQ(Platform::writeBytes(one.get(), "written"), 7);
    std::string received(100, '\0');
    const ssize_t count = ::read(other.get(), received.data(), received.size());
    ASSERT_GT(count, 0);
    received.resize(static_cast<std::size_t>(count));
    EXPECT_EQ(received, "sent, written");
}

TEST_F(PlatformTest, AFailedTransferTellsItsError) {
    EXPECT_EQ(Platform::sendBytes(-1, "x"), -1);
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_EQ(Platform::writeBytes(-1, "x"), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(PlatformTest, OneTransferAsksForAtMostOneGibibyte) {
    constexpr std::size_t gibibyte = 1 << 30;
    constexpr std::size_t reserved = 3 * gibibyte;
    // The pages are never touched, so they take no memory.
    void* const bytes =
        ::mmap(nullptr, reserved, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(bytes, MAP_FAILED);
    const std::string_view text(static_cast<const char*>(bytes), reserved);

    for (const auto& transfer : {Platform::sendBytes, Platform::writeBytes}) {
        for (const auto& [size, expected] :
             {std::pair(gibibyte - 1, gibibyte - 1), std::pair(gibibyte, gibibyte),
              std::pair(gibibyte + 1, gibibyte), std::pair(reserved, gibibyte)}) {
            systemCalls().areSwallowed = true;
            const ssize_t count = transfer(-1, text.substr(0, size));
            systemCalls().areSwallowed = false;
            EXPECT_EQ(systemCalls().swallowed, expected) << size;
            EXPECT_EQ(count, static_cast<ssize_t>(expected)) << size;
        }
    }
    ::munmap(bytes, reserved);
}

// Random bytes.

TEST_F(PlatformTest, RandomBytesAreFilledToTheLastAndDifferEachTime) {
    std::set<std::array<unsigned char, 4>> heads;
    std::set<std::array<unsigned char, 4>> tails;
    for (int round = 0; round < 8; ++round) {
        std::array<unsigned char, 256> bytes{};
        ASSERT_TRUE(Platform::fillRandom(bytes));
        heads.insert({bytes[0], bytes[1], bytes[2], bytes[3]});
        tails.insert({bytes[252], bytes[253], bytes[254], bytes[255]});
    }
    EXPECT_GT(heads.size(), 1U);
    EXPECT_GT(tails.size(), 1U);
}

}  // namespace
}  // namespace tidewell::test
