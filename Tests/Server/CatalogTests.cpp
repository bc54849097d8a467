#include "Server/Catalog.hpp"

#include "Support/Conversation.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using nlohmann::json;

/// The files of a folder in the order of their names, which begin with their position in the catalog.
std::vector<std::filesystem::path> goldenFiles(const char* folder) {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(GOLDEN_PATH) / folder)) {
        paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    return paths;
}

json golden(const std::filesystem::path& path) { return json::parse(std::ifstream(path)); }

/// What the server publishes of a kind ("tools", …), read by an independent library.
json published(const std::string& kind) {
    const json reply = replyTo(R"({"id":1,"method":")" + kind + "/list\"}");
    EXPECT_EQ(reply["result"].size(), 1U);
    return reply["result"][kind];
}

/// The published entry at the position that the name of a golden file gives.
json publishedAt(const std::filesystem::path& path) {
    const auto position = static_cast<std::size_t>(std::stoi(path.stem().string().substr(0, 2)));
    return published(path.parent_path().filename()).at(position - 1);
}

class GoldenToolTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenToolTest, IsPublishedExactlyAsWritten) {
    EXPECT_EQ(publishedAt(GetParam()), golden(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Tools, GoldenToolTest, testing::ValuesIn(goldenFiles("tools")), fileNameOf);

TEST(Catalog, ThereIsAGoldenFileForEachEntry) {
    for (const auto& [kind, count] : {std::pair("tools", 60U), {"resources", 9U}, {"prompts", 6U}}) {
        EXPECT_EQ(published(kind).size(), count);
        EXPECT_EQ(goldenFiles(kind).size(), count);
    }
}

class GoldenResourceTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenResourceTest, IsPublishedExactlyAsWritten) {
    EXPECT_EQ(publishedAt(GetParam()), golden(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Resources, GoldenResourceTest, testing::ValuesIn(goldenFiles("resources")),
                         fileNameOf);

class GoldenPromptTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenPromptTest, IsPublishedAndAnsweredExactlyAsWritten) {
    const json expected = golden(GetParam());
    EXPECT_EQ(publishedAt(GetParam()), expected["entry"]);
    const std::string name = expected["entry"]["name"];
    EXPECT_EQ(json::parse(Catalog::promptMessages(name).jsonString()),
              (json{{"messages", expected["messages"]}}));
    EXPECT_EQ(replyTo(R"({"id":1,"method":"prompts/get","params":{"name":")" + name + "\"}}")["result"],
              (json{{"messages", expected["messages"]}}));
}

INSTANTIATE_TEST_SUITE_P(Prompts, GoldenPromptTest, testing::ValuesIn(goldenFiles("prompts")), fileNameOf);

TEST(PromptCatalog, AnyOtherNameGetsTheGenericText) {
    for (const char* const name : {"", "nope", "Cleanup_Today", " cleanup_today"}) {
        EXPECT_EQ(json::parse(Catalog::promptMessages(name).jsonString())["messages"][0]["content"]["text"],
                  "Use Tidewell tools in the safe order: list → search → propose → confirm → apply.");
    }
}

TEST(Catalog, TwoListingsAreIdenticalToTheByte) {
    for (const char* const method : {"tools/list", "resources/list", "prompts/list"}) {
        const std::string line = std::string(R"({"id":1,"method":")") + method + "\"}\n";
        const std::string twice = converse(line + line);
        EXPECT_EQ(twice, converse(line) + converse(line));
    }
}

TEST(Catalog, TheTablesMayBeReadFromSeveralThreads) {
    std::vector<std::thread> readers;
    std::vector<std::string> texts(4);
    for (std::string& text : texts) {
        readers.emplace_back([&text] {
            text.append(Catalog::tools()).append(Catalog::prompts()).append(Catalog::resources());
        });
    }
    for (std::thread& reader : readers) reader.join();
    for (const std::string& text : texts) EXPECT_EQ(text, texts.front());
}

}  // namespace
}  // namespace tidewell::test
