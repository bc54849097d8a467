// PlatformDarwinTests.cpp: the macOS implementation of Platform, compiled for Linux with stand-ins for Apple's
// declarations.
#include "Base/Descriptor.hpp"
#include "Base/Platform.hpp"

#include "Base/Darwin/Darwin.hpp"
#include "Base/SystemCalls.hpp"
#include "Support/TemporaryFolder.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <filesystem>

namespace tidewell::test {
namespace {

class PlatformDarwin : public testing::Test {
public:
    PlatformDarwin() { darwin().executablePath = "/nowhere/bin/program"; }
    ~PlatformDarwin() override {
        darwin() = {};
        systemCalls() = {};
    }
};

// The executable.

TEST_F(PlatformDarwin, APathOfAnyLengthIsReported) {
    for (const std::size_t length : {1U, 15U, 255U, 256U, 1023U, 1024U, 1025U, 70000U}) {
        const std::string path = "/" + std::string(length - 1, 'p');
        darwin().executablePath = path;
        EXPECT_EQ(Platform::executablePath(), path) << length;
    }
}

TEST_F(PlatformDarwin, ALinkToTheExecutableIsFollowed) {
    const TemporaryFolder folder;
    const std::string real = std::filesystem::canonical(folder.write("package/bin/program", "")).string();
    std::filesystem::create_directory(folder / "bin");
    std::filesystem::create_symlink("../package/bin/program", folder / "bin/program");
    darwin().executablePath = folder / "bin/program";
    EXPECT_EQ(Platform::executablePath(), real);
}

TEST_F(PlatformDarwin, WithoutASystemThatTellsThePathItIsTheNameItWasStartedBy) {
    std::string name = "bin/program";
    std::array<char*, 2> arguments{name.data(), nullptr};
    darwin().executablePath = std::nullopt;
    darwin().arguments = arguments.data();
    EXPECT_EQ(Platform::executablePath(), "bin/program");
}

TEST_F(PlatformDarwin, WithoutPathAndArgumentsThereIsNone) {
    std::array<char*, 1> arguments{nullptr};
    darwin().executablePath = std::nullopt;
    EXPECT_EQ(Platform::executablePath(), std::nullopt);
    darwin().arguments = arguments.data();
    EXPECT_EQ(Platform::executablePath(), std::nullopt);
}

// The embedded property list.

TEST_F(PlatformDarwin, AnEmbeddedPropertyListIsHandedOverToItsLastByte) {
    for (const std::string_view section :
         {std::string_view("<plist/>\n"), std::string_view("<plist/>\n\0", 10)}) {
        darwin().propertyList = section;
        EXPECT_EQ(Platform::bundleInformation(), section);
    }
}

TEST_F(PlatformDarwin, NoPropertyListIsNone) { EXPECT_TRUE(Platform::bundleInformation().empty()); }

// Sockets.

TEST_F(PlatformDarwin, ASocketThatWouldRaiseTheSignalIsRefused) {
    const int next = Descriptor(Platform::openStreamSocket()).get();
    ASSERT_GE(next, 0);
    systemCalls().noSignalError = ENOPROTOOPT;
    EXPECT_EQ(Platform::openStreamSocket(), -1);
    EXPECT_EQ(errno, ENOPROTOOPT);
    systemCalls().noSignalError = 0;
    EXPECT_EQ(Descriptor(Platform::openStreamSocket()).get(), next) << "the refused one stayed open";
}

TEST_F(PlatformDarwin, ASocketsPathHas103BytesAndItsEnd) { EXPECT_EQ(Platform::socketPathCapacity, 104U); }

}  // namespace
}  // namespace tidewell::test
