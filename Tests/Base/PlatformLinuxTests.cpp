#include "Base/Platform.hpp"

#include "Base/SystemCalls.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace tidewell::test {
namespace {

TEST(PlatformLinux, TheExecutableIsThisOne) {
    EXPECT_EQ(Platform::executablePath(), std::filesystem::canonical("/proc/self/exe").string());
}

TEST(PlatformLinux, WithoutTheVariableAndAFileOfUsersHomeIsTheRoot) {
    ::unsetenv("HOME");
    systemCalls().isWithoutUsers = true;
    EXPECT_EQ(Platform::homeDirectory(), "/");
    systemCalls() = {};
}

TEST(PlatformLinux, NoPropertyListIsEmbedded) { EXPECT_TRUE(Platform::bundleInformation().empty()); }

TEST(PlatformLinux, ASocketsPathHas107BytesAndItsEnd) { EXPECT_EQ(Platform::socketPathCapacity, 108U); }

}  // namespace
}  // namespace tidewell::test
