// ServerVersionTests.cpp: where the version comes from. What the running program prints is in ProgramTests.
#include "Server/ServerVersion.hpp"

#include "Support/TemporaryFolder.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace tidewell::test {
namespace {

std::string versionFile(const std::string& version) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>CFBundleShortVersionString</key><string>)" +
           version + "</string></dict></plist>";
}

struct PathCase {
    const char* name;
    const char* executable;
    const char* versionFile;
};

class InfoPlistPathTest : public testing::TestWithParam<PathCase> {};

TEST_P(InfoPlistPathTest, LiesInTheParentOfTheExecutablesFolder) {
    EXPECT_EQ(infoPlistPath(GetParam().executable), GetParam().versionFile);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, InfoPlistPathTest,
    testing::Values(PathCase{"InABundle", "/X/App.app/Contents/MacOS/tool", "/X/App.app/Contents/Info.plist"},
                    PathCase{"InAPrefix", "/usr/local/bin/tool", "/usr/local/Info.plist"},
                    PathCase{"DirectlyUnderTheRoot", "/tool", "/Info.plist"},
                    PathCase{"OneFolderUnderTheRoot", "/bin/tool", "/Info.plist"},
                    PathCase{"TheRootItself", "/", "/Info.plist"},
                    PathCase{"ABareName", "tool", "Info.plist"},
                    PathCase{"ARelativeFolder", "bin/tool", "Info.plist"},
                    PathCase{"TwoRelativeFolders", "a/bin/tool", "a/Info.plist"},
                    PathCase{"Nothing", "", "Info.plist"},
                    PathCase{"ATrailingSlash", "/a/bin/tool/", "/a/Info.plist"},
                    PathCase{"DoubledSlashes", "/a//bin//tool", "/a/Info.plist"}),
    nameOf);

TEST(VersionFromPlist, TheStringUnderItsKeyIsTheVersion) {
    const TemporaryFolder folder;
    EXPECT_EQ(versionFromPlist(folder.write("Info.plist", versionFile("2.3.1"))), "2.3.1");
    EXPECT_EQ(versionFromPlist(folder.write("text.plist", "{ CFBundleShortVersionString = \"1.4.2\"; }")),
              "1.4.2");
}

TEST(VersionFromPlist, AnythingElseIsNothing) {
    const TemporaryFolder folder;
    EXPECT_EQ(versionFromPlist(folder / "missing"), std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.path()), std::nullopt) << "a folder";
    EXPECT_EQ(versionFromPlist(folder.write("empty", "")), std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.write("emptyVersion", versionFile(""))), std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.write("garbage", "\x01\x02\x03")), std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.write("cut", versionFile("2.3.1").substr(0, 100))), std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.write(
                  "number",
                  "<plist><dict><key>CFBundleShortVersionString</key><integer>2</integer></dict></plist>")),
              std::nullopt);
    EXPECT_EQ(versionFromPlist(folder.write("array", "<plist><array><string>2.3.1</string></array></plist>")),
              std::nullopt);
}

TEST(VersionFromPlist, APipeInItsPlaceDoesNotHoldUpTheStart) {
    const TemporaryFolder folder;
    const std::string path = folder / "Info.plist";
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(versionFromPlist(path), std::nullopt);
}

TEST(VersionFromPlist, AnEndlessDeviceInItsPlaceDoesNotEither) {
    EXPECT_EQ(versionFromPlist("/dev/zero"), std::nullopt);
}

TEST(VersionFromPlist, AFileBeyondTheSizeLimitIsNotRead) {
    const TemporaryFolder folder;
    const std::string good = versionFile("2.3.1");
    const std::size_t limit = 16 << 20;
    EXPECT_EQ(versionFromPlist(folder.write("atTheLimit", good + std::string(limit - good.size(), ' '))),
              "2.3.1");
    EXPECT_EQ(versionFromPlist(folder.write("onePast", good + std::string(limit - good.size() + 1, ' '))),
              std::nullopt);
}

}  // namespace
}  // namespace tidewell::test
