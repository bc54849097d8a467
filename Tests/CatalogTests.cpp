#include "Catalog.hpp"

#include "Support/Conversation.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
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

/// What the server publishes, read by an independent library.
json published(const char* method, const char* member) {
    const json reply = replyTo(std::string(R"({"id":1,"method":")") + method + "\"}");
    EXPECT_EQ(reply["result"].size(), 1U);
    return reply["result"][member];
}

json tools() { return published("tools/list", "tools"); }

class GoldenToolTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenToolTest, IsPublishedExactlyAsWritten) {
    const auto position = static_cast<std::size_t>(std::stoi(GetParam().stem().string().substr(0, 2)));
    EXPECT_EQ(tools().at(position - 1), golden(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Tools, GoldenToolTest, testing::ValuesIn(goldenFiles("tools")), fileNameOf);

TEST(ToolCatalog, ThereAreSixtyToolsAndAGoldenFileForEach) {
    EXPECT_EQ(tools().size(), 60U);
    EXPECT_EQ(goldenFiles("tools").size(), 60U);
    EXPECT_EQ(tools().front()["name"], "list_accounts");
    EXPECT_EQ(tools().back()["name"], "export_report_markdown");
}

TEST(ToolCatalog, TheLevelsStandWhereTheyBelong) {
    const json all = tools();
    for (std::size_t at = 0; at < all.size(); ++at) {
        const std::size_t position = at + 1;
        const char* level = "[L0] ";
        if (position >= 32 && position <= 34) level = "[L1] ";
        if (position >= 35 && position <= 50) level = "[L2] ";
        if (position >= 51 && position <= 54) level = "[L3] ";
        EXPECT_EQ(all[at]["description"].get<std::string>().substr(0, 5), level) << all[at]["name"];
    }
}

TEST(ToolCatalog, EveryDescriptionIsATagABlankAndText) {
    for (const json& tool : tools()) {
        EXPECT_TRUE(
            std::regex_match(tool["description"].get<std::string>(), std::regex(R"(\[L[0-3]\] \S(.*\S)?)")))
            << tool["name"];
    }
}

TEST(ToolCatalog, TheElevenToolsWithoutArgumentsHaveNoProperties) {
    const std::set<std::string> expected = {"list_accounts",
                                            "list_local_repositories",
                                            "get_unmapped_remote_repositories",
                                            "get_settings",
                                            "get_project_health_overview",
                                            "get_branch_overview",
                                            "rescan_now",
                                            "find_duplicate_clones",
                                            "find_missing_local_clones",
                                            "generate_mapping_report",
                                            "sync_remote_inventory_now"};
    std::set<std::string> found;
    for (const json& tool : tools()) {
        if (tool["inputSchema"] == json::parse(R"({"type":"object","additionalProperties":false})"))
            found.insert(tool["name"]);
        EXPECT_EQ(tool["inputSchema"].contains("properties"), !expected.contains(tool["name"]));
    }
    EXPECT_EQ(found, expected);
}

TEST(ToolCatalog, ToolsWhoseArgumentsAreAllOptionalHaveNoRequiredKey) {
    const std::set<std::string> expected = {"list_remote_repositories", "get_unmapped_local_repositories",
                                            "get_daily_summary",        "get_weekly_summary",
                                            "get_activity_ranking",     "get_audit_log",
                                            "list_pending_proposals",   "generate_daily_report",
                                            "generate_weekly_report",   "generate_cleanup_plan"};
    std::set<std::string> found;
    for (const json& tool : tools()) {
        const json& schema = tool["inputSchema"];
        if (schema.contains("properties") && !schema.contains("required")) found.insert(tool["name"]);
        if (schema.contains("required")) {
            EXPECT_FALSE(schema["required"].empty()) << tool["name"];
        }
    }
    EXPECT_EQ(found, expected);
}

TEST(ToolCatalog, SchemasUseNoKeywordBeyondTheseFour) {
    int described = 0;
    for (const json& tool : tools()) {
        EXPECT_EQ(tool.size(), 3U);
        const json& schema = tool["inputSchema"];
        EXPECT_EQ(schema["additionalProperties"], false);
        for (const auto& [key, value] : schema.items()) {
            EXPECT_TRUE(key == "type" || key == "properties" || key == "required" ||
                        key == "additionalProperties");
        }
        if (!schema.contains("properties")) continue;
        for (const auto& [name, property] : schema["properties"].items()) {
            described += property.contains("description") ? 1 : 0;
            const bool isArray = property["type"] == "array";
            EXPECT_EQ(property.contains("items"), isArray) << name;
            if (isArray) {
                EXPECT_EQ(property["items"].size(), 1U) << name;
                EXPECT_FALSE(property.contains("description")) << name;
            }
            EXPECT_EQ(property.size(), 1U + property.count("items") + property.count("description")) << name;
        }
    }
    EXPECT_EQ(described, 10);
}

TEST(ToolCatalog, TheTokenIsRequiredWhereverItIsDeclared) {
    int declared = 0;
    for (const json& tool : tools()) {
        const json& schema = tool["inputSchema"];
        if (!schema.contains("properties") || !schema["properties"].contains("confirmationToken")) continue;
        ++declared;
        EXPECT_EQ(schema["required"].back(), "confirmationToken") << tool["name"];
    }
    EXPECT_EQ(declared, 18);
}

class GoldenResourceTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenResourceTest, IsPublishedExactlyAsWritten) {
    const auto position = static_cast<std::size_t>(std::stoi(GetParam().stem().string().substr(0, 2)));
    EXPECT_EQ(published("resources/list", "resources").at(position - 1), golden(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Resources, GoldenResourceTest, testing::ValuesIn(goldenFiles("resources")),
                         fileNameOf);

TEST(ResourceCatalog, ThereAreNineAndEachIsJSON) {
    const json all = published("resources/list", "resources");
    EXPECT_EQ(all.size(), 9U);
    EXPECT_EQ(goldenFiles("resources").size(), 9U);
    for (const json& resource : all) {
        EXPECT_EQ(resource["mimeType"], "application/json");
        EXPECT_EQ(resource.size(), 4U);
    }
}

class GoldenPromptTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(GoldenPromptTest, IsPublishedAndAnsweredExactlyAsWritten) {
    const auto position = static_cast<std::size_t>(std::stoi(GetParam().stem().string().substr(0, 2)));
    const json expected = golden(GetParam());
    EXPECT_EQ(published("prompts/list", "prompts").at(position - 1), expected["entry"]);
    const std::string name = expected["entry"]["name"];
    EXPECT_EQ(json::parse(Catalog::promptMessages(name).jsonString()),
              (json{{"messages", expected["messages"]}}));
    EXPECT_EQ(replyTo(R"({"id":1,"method":"prompts/get","params":{"name":")" + name + "\"}}")["result"],
              (json{{"messages", expected["messages"]}}));
}

INSTANTIATE_TEST_SUITE_P(Prompts, GoldenPromptTest, testing::ValuesIn(goldenFiles("prompts")), fileNameOf);

TEST(PromptCatalog, ThereAreSixAndNoneTakesArguments) {
    const json all = published("prompts/list", "prompts");
    EXPECT_EQ(all.size(), 6U);
    EXPECT_EQ(goldenFiles("prompts").size(), 6U);
    for (const json& prompt : all) EXPECT_EQ(prompt["arguments"], json::array());
}

TEST(PromptCatalog, APromptHasExactlyOneUserMessage) {
    const json messages = json::parse(Catalog::promptMessages("cleanup_today").jsonString())["messages"];
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0]["role"], "user");
    EXPECT_EQ(messages[0]["content"]["text"], "Help me clean up today. Call get_daily_summary and "
                                              "propose_cleanup_plan. Only propose changes; I will "
                                              "confirm before anything is applied.");
}

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
            const JSONValue copy = Catalog::tools();
            text = copy.jsonString() + Catalog::prompts().jsonString() + Catalog::resources().jsonString();
        });
    }
    for (std::thread& reader : readers) reader.join();
    for (const std::string& text : texts) EXPECT_EQ(text, texts.front());
}

}  // namespace
}  // namespace tidewell::test
