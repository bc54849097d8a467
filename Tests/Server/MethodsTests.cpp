// MethodsTests.cpp: initialize, tool calls, resource reads and prompts.
#include "Server/StdioBridge.hpp"

#include "Support/Conversation.hpp"
#include "Support/ExactJSON.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>

#include <string>

namespace tidewell::test {
namespace {

using nlohmann::json;

// Initialize.

json initialize(std::string_view params) {
    const std::string member = params.empty() ? "" : ",\"params\":" + std::string(params);
    return replyTo("{\"id\":1,\"method\":\"initialize\"" + member + "}")["result"];
}

TEST(Initialize, TheClientsProtocolVersionIsEchoed) {
    EXPECT_EQ(initialize(R"({"protocolVersion":"2024-11-05"})")["protocolVersion"], "2024-11-05");
    EXPECT_EQ(initialize(R"({"protocolVersion":"no such revision"})")["protocolVersion"], "no such revision");
}

TEST(Initialize, AnEmptyProtocolVersionIsEchoedToo) {
    EXPECT_EQ(initialize(R"({"protocolVersion":""})")["protocolVersion"], "");
}

TEST(Initialize, WithoutAProtocolVersionTheServersOwnIsNamed) {
    for (const char* const params : {"", "null", "[]", "{}", R"({"protocolVersion":5})",
                                     R"({"protocolVersion":null})", R"({"protocolVersion":{}})"}) {
        EXPECT_EQ(initialize(params)["protocolVersion"], "2025-11-25") << params;
    }
}

TEST(Initialize, TheResultHasExactlyItsFourMembers) {
    const json result = initialize("{}");
    EXPECT_EQ(result.size(), 4U);
    EXPECT_EQ(result["capabilities"], json::parse(R"({"tools":{},"resources":{},"prompts":{}})"));
    EXPECT_EQ(result["serverInfo"].size(), 2U);
    EXPECT_EQ(result["serverInfo"]["name"], "Tidewell");
    EXPECT_TRUE(result["serverInfo"]["version"].is_string());
    EXPECT_EQ(result["instructions"], "Read tools (L0) work directly. To mutate: call a propose_* tool, ask "
                                      "the user to confirm in Tidewell → "
                                      "Agent Review to get a confirmationToken, then call the apply/git tool "
                                      "with that token. Dangerous git "
                                      "is always blocked.");
    EXPECT_EQ(result["instructions"].get<std::string>().size(), 224U);
}

TEST(Initialize, ItIsAnsweredTheSameWayAgain) {
    const std::string line =
        "{\"id\":1,\"method\":\"initialize\",\"params\":{\"protocolVersion\":\"2025-06-18\"}}\n";
    const auto replies = exactLines(converse(line + "{\"method\":\"notifications/initialized\"}\n" + line +
                                             "{\"id\":1,\"method\":\"initialize\"}\n" + line));
    ASSERT_EQ(replies.size(), 4U);
    EXPECT_EQ(replies[1], replies[0]);
    EXPECT_EQ(json::parse(replies[2])["result"]["protocolVersion"], "2025-11-25")
        << "the one before is not kept";
    EXPECT_EQ(replies[3], replies[0]);
}

// Tool calls.

/// The tool result of one call to a host app that follows its script.
json call(ScriptedHost& host, std::string_view params) {
    return replyTo(R"({"id":1,"method":"tools/call","params":)" + std::string(params) + "}",
                   host.socketPath())["result"];
}

json call(ScriptedHost& host) { return call(host, R"({"name":"x"})"); }

/// A tool result as it must look.
json toolResult(const char* text, bool isError) {
    return {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", isError}};
}

/// A failure's error record, after checking everything around it.
json failure(const json& result) {
    EXPECT_EQ(result.size(), 2U);
    EXPECT_EQ(result.value("isError", false), true);
    EXPECT_EQ(result["content"].size(), 1U);
    EXPECT_EQ(result["content"][0].size(), 2U);
    EXPECT_EQ(result["content"][0]["type"], "text");
    const json wrapper = json::parse(result["content"][0]["text"].get<std::string>());
    EXPECT_EQ(wrapper.size(), 1U);
    return wrapper["error"];
}

json record(const char* code, const char* message) { return {{"code", code}, {"message", message}}; }

const char* const notRunning = "Tidewell is not running — start the app to use this tool.";

TEST(ToolCall, WithoutANameItIsAToolErrorAndTheHostIsNotAsked) {
    ScriptedHost host;
    for (const char* const params :
         {"null", "[]", "{}", R"({"name":5})", R"({"name":null})", R"({"name":{}})", "\"x\""}) {
        EXPECT_EQ(failure(call(host, params)), record("invalid_params", "`name` is required")) << params;
    }
    EXPECT_EQ(failure(replyTo(R"({"id":1,"method":"tools/call"})", host.socketPath())["result"]),
              record("invalid_params", "`name` is required"));
    EXPECT_EQ(host.connections(), 0);
}

/// What reaches the host app for these arguments, as exact JSON.
std::string envelopeFor(const std::string& arguments) {
    ScriptedHost host;
    call(host, R"({"name":"x","arguments":)" + arguments + "}");
    return host.exactEnvelopes().at(0);
}

std::string envelopeWith(const std::string& args) { return exact(R"({"tool":"x","args":)" + args + "}"); }

TEST(ToolCall, ArgumentsArePassedOnWhateverTheirType) {
    for (const char* const arguments : {"null", "[\"a\"]", "\"text\"", "2.5", "{\"deep\":{\"er\":[null]}}"})
        EXPECT_EQ(envelopeFor(arguments), envelopeWith(arguments));
}

TEST(ToolCall, NumbersInArgumentsArriveInTheirShortestForm) {
    EXPECT_EQ(envelopeFor("[3.0,3e2,2.50,25e-1,-7,9007199254740993.0,1e300,9223372036854775807]"),
              envelopeWith("[3,300,2.5,2.5,-7,9007199254740993,1e+300,9223372036854775807]"));
}

TEST(ToolCall, OfMembersWithOneKeyTheLastArrivesAlone) {
    EXPECT_EQ(envelopeFor(R"({"a":2,"b":[{"c":3,"c":4}],"\u0061":5})"),
              envelopeWith(R"({"b":[{"c":4}],"a":5})"));
}

TEST(ToolCall, OfTwoNamesOrArgumentsTheLastCounts) {
    ScriptedHost host;
    call(host, R"({"name":"y","arguments":{"a":2},"name":"x","arguments":{"a":3}})");
    EXPECT_EQ(host.exactEnvelopes(), std::vector{envelopeWith(R"({"a":3})")});
    EXPECT_EQ(failure(call(host, R"({"name":"x","name":5})")),
              record("invalid_params", "`name` is required"));
    EXPECT_EQ(host.connections(), 1);
}

TEST(ToolCall, MissingArgumentsAreAnEmptyObject) {
    ScriptedHost host;
    call(host);
    EXPECT_EQ(host.exactEnvelopes(), std::vector{envelopeWith("{}")});
}

TEST(ToolCall, OneAndZeroInArgumentsReachTheHostAsTrueAndFalse) {
    EXPECT_EQ(envelopeFor(R"({"limit":1,"offset":0,"depth":2,"all":[1.0,0e5,-0.0,10e-1,1.5]})"),
              envelopeWith(R"({"limit":true,"offset":false,"depth":2,"all":[true,false,false,true,1.5]})"));
}

TEST(ToolCall, AToolThatIsNotInTheCatalogIsForwardedAllTheSame) {
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":"fine"})");
    EXPECT_EQ(call(host, R"({"name":"no_such_tool"})"), toolResult("\"fine\"", false));
    EXPECT_EQ(host.received().back()["tool"], "no_such_tool");
}

struct ReplyCase {
    const char* name;
    const char* reply;
    const char* text;
    bool isError;
};

class HostReplyTest : public testing::TestWithParam<ReplyCase> {};

TEST_P(HostReplyTest, BecomesItsToolResult) {
    ScriptedHost host;
    host.replies(GetParam().reply);
    const json result = call(host);
    EXPECT_EQ(result["isError"], GetParam().isError);
    EXPECT_EQ(result.size(), 2U);
    ASSERT_EQ(result["content"].size(), 1U);
    EXPECT_EQ(result["content"][0].size(), 2U);
    EXPECT_EQ(exact(result["content"][0]["text"].get<std::string>()), exact(GetParam().text));
}

constexpr const char* unknownError = R"({"error":{"code":"error","message":"unknown error"}})";

INSTANTIATE_TEST_SUITE_P(
    Replies, HostReplyTest,
    testing::ValuesIn(std::vector<ReplyCase>{
        {"AnObjectResult", R"({"ok":true,"result":{"a":1,"u":"x/y"}})", R"({"a":1,"u":"x/y"})", false},
        {"AStringResultInQuotes", R"({"ok":true,"result":"text"})", "\"text\"", false},
        {"ANullResult", R"({"ok":true,"result":null})", "null", false},
        {"AnArrayResult", R"({"ok":true,"result":[1,0]})", "[1,0]", false},
        {"ANumberResult", R"({"ok":true,"result":1})", "1", false},
        {"NumbersInTheirShortestForm", R"({"ok":true,"result":[1.0,0.0,2.50,3e2,1e300]})",
         "[1,0,2.5,300,1e+300]", false},
        {"OfEqualKeysTheLast", R"({"ok":true,"result":{"a":1,"b":{"c":1,"c":2},"a":3}})",
         R"({"a":3,"b":{"c":2}})", false},
        {"TheLastOfTwoResults", R"({"ok":false,"result":{"a":1},"ok":true,"result":[2]})", "[2]", false},
        {"TheLastOfTwoErrors", R"({"error":{"code":"a"},"error":{"code":"b","code":"c"}})",
         R"({"error":{"code":"c","message":"unknown error"}})", true},
        {"AMissingResultIsAnEmptyObject", R"({"ok":true})", "{}", false},
        {"AnErrorBesideOkTrueIsIgnored", R"({"ok":true,"error":{"code":"x"}})", "{}", false},
        {"AWholeErrorRecord", R"({"ok":false,"error":{"code":"denied","message":"No.","hint":"Ask."}})",
         R"({"error":{"code":"denied","message":"No.","hint":"Ask."}})", true},
        {"AnEmptyHintCountsAsSupplied", R"({"ok":false,"error":{"code":"c","message":"m","hint":""}})",
         R"({"error":{"code":"c","message":"m","hint":""}})", true},
        {"AHintThatIsNoStringIsLeftOut", R"({"ok":false,"error":{"code":"c","message":"m","hint":1}})",
         R"({"error":{"code":"c","message":"m"}})", true},
        {"ANumericCodeDoesNotCostTheMessage", R"({"ok":false,"error":{"code":5,"message":"m"}})",
         R"({"error":{"code":"error","message":"m"}})", true},
        {"AMissingMessage", R"({"ok":false,"error":{"code":"c"}})",
         R"({"error":{"code":"c","message":"unknown error"}})", true},
        {"ABareStringAsError", R"({"ok":false,"error":"broken"})", unknownError, true},
        {"NoErrorAtAll", R"({"ok":false})", unknownError, true},
        {"AnEmptyObject", "{}", unknownError, true},
        {"AnArray", "[true]", unknownError, true},
        {"ABareString", "\"ok\"", unknownError, true},
        {"Null", "null", unknownError, true},
        {"OkAsTheNumberOne", R"({"ok":1,"result":{}})", unknownError, true},
        {"OkAsAString", R"({"ok":"true","result":{}})", unknownError, true},
        {"AnErrorRecordWithoutOk", R"({"error":{"code":"c","message":"m"}})",
         R"({"error":{"code":"c","message":"m"}})", true}}),
    nameOf);

TEST(ToolCall, AnAbsentHostIsTheFixedSentence) {
    const json result = replyTo(R"({"id":1,"method":"tools/call","params":{"name":"x"}})")["result"];
    EXPECT_EQ(failure(result), record("app_not_running", notRunning));
}

TEST(ToolCall, AHostThatClosesUnansweredIsTheSameFixedSentence) {
    ScriptedHost host;
    host.closesUnanswered();
    EXPECT_EQ(failure(call(host)), record("app_not_running", notRunning));
}

TEST(ToolCall, AFailedWriteIsTheSameFixedSentence) {
    ScriptedHost host;
    host.closesAtOnce();
    const std::string large(4'000'000, 'x');  // more than the socket takes before the host hangs up
    EXPECT_EQ(failure(call(host, R"({"name":"x","arguments":{"a":")" + large + "\"}}")),
              record("app_not_running", notRunning));
}

TEST(ToolCall, AReplyThatIsNoJSONIsAnErrorWithTheReadersDescription) {
    ScriptedHost host;
    host.replies("not json");
    EXPECT_EQ(failure(call(host)), record("error", "invalid JSON at byte 0: expected a value"));
}

// Resource reads.

json read(ScriptedHost& host, std::string_view uri = "tidewell://settings") {
    return replyTo(R"({"id":1,"method":"resources/read","params":{"uri":")" + std::string(uri) + "\"}}",
                   host.socketPath());
}

json errorReply(int code, const std::string& message) {
    return {{"jsonrpc", "2.0"}, {"id", 1}, {"error", {{"code", code}, {"message", message}}}};
}

TEST(ResourceRead, WithoutAStringUriItIsAnErrorAndTheHostIsNotAsked) {
    ScriptedHost host;
    for (const char* const params : {"{}", "null", "[]", R"({"uri":42})", R"({"uri":null})"}) {
        EXPECT_EQ(replyTo(std::string(R"({"id":1,"method":"resources/read","params":)") + params + "}",
                          host.socketPath()),
                  errorReply(-32602, "`uri` is required for resources/read"))
            << params;
    }
    EXPECT_EQ(host.connections(), 0);
}

TEST(ResourceRead, TheHostsDataIsOneJSONTextUnderTheClientsUri) {
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":{"theme":"dark","path":"/a/b"}})");
    const json result = read(host)["result"];
    EXPECT_EQ(result.size(), 1U);
    ASSERT_EQ(result["contents"].size(), 1U);
    const json& content = result["contents"][0];
    EXPECT_EQ(content.size(), 3U);
    EXPECT_EQ(content["uri"], "tidewell://settings");
    EXPECT_EQ(content["mimeType"], "application/json");
    EXPECT_EQ(json::parse(content["text"].get<std::string>()),
              json::parse(R"({"theme":"dark","path":"/a/b"})"));
    EXPECT_EQ(content["text"].get<std::string>().find("\\/"), std::string::npos);

    EXPECT_EQ(host.exactEnvelopes(),
              std::vector{exact(R"({"tool":"resources/read","args":{"uri":"tidewell://settings"}})")});
}

TEST(ResourceRead, AUriThatIsNotListedIsForwardedAllTheSame) {
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":[]})");
    EXPECT_EQ(read(host, "https://example.com/é")["result"]["contents"][0]["uri"], "https://example.com/é");
    EXPECT_EQ(host.received()[0]["args"]["uri"], "https://example.com/é");
}

TEST(ResourceRead, OfTwoUrisTheLastCounts) {
    ScriptedHost host;
    replyTo(R"({"id":1,"method":"resources/read","params":{"uri":"a","uri":"b"}})", host.socketPath());
    EXPECT_EQ(host.exactEnvelopes(), std::vector{exact(R"({"tool":"resources/read","args":{"uri":"b"}})")});
}

TEST(ResourceRead, AMissingResultIsAnEmptyObjectAndNullStaysNull) {
    ScriptedHost host;
    host.replies(R"({"ok":true})").replies(R"({"ok":true,"result":null})");
    EXPECT_EQ(read(host)["result"]["contents"][0]["text"], "{}");
    EXPECT_EQ(read(host)["result"]["contents"][0]["text"], "null");
}

TEST(ResourceRead, TheHostsMessageIsTheErrorsMessageAndItsCodeAndHintAreDropped) {
    ScriptedHost host;
    host.replies(R"({"ok":false,"error":{"code":"gone","message":"No such resource.","hint":"List them."}})");
    EXPECT_EQ(read(host), errorReply(-32000, "No such resource."));
}

TEST(ResourceRead, WithoutAUsableMessageTheResourceIsUnavailable) {
    ScriptedHost host;
    for (const char* const reply :
         {R"({"ok":false,"error":"gone"})", R"({"ok":false})", R"({"ok":false,"error":{}})",
          R"({"ok":false,"error":{"message":5}})", "{}", "[]", "\"ok\"", "null", R"({"ok":1,"result":{}})"}) {
        host.replies(reply);
        EXPECT_EQ(read(host), errorReply(-32000, "resource unavailable")) << reply;
    }
}

TEST(ResourceRead, AnAbsentHostIsReportedWithTheSocketClientsOwnMessage) {
    EXPECT_EQ(
        replyTo(R"({"id":1,"method":"resources/read","params":{"uri":"x"}})", "/nonexistent/host.sock"),
        errorReply(
            -32000,
            "could not connect to tidewell-agent.sock at /nonexistent/host.sock — is Tidewell running?"));
}

TEST(ResourceRead, AReplyThatIsNoJSONIsAnInternalError) {
    ScriptedHost host;
    host.replies("not json");
    EXPECT_EQ(read(host), errorReply(-32603, "Internal error: invalid JSON at byte 0: expected a value"));
}

// Prompts.

TEST(PromptGet, WithoutAStringNameItIsAnError) {
    for (const char* const params : {"{}", "null", "[]", R"({"name":5})"}) {
        EXPECT_EQ(replyTo(std::string(R"({"id":1,"method":"prompts/get","params":)") + params + "}"),
                  errorReply(-32602, "`name` is required for prompts/get"))
            << params;
    }
}

TEST(PromptGet, ArgumentsChangeNothing) {
    const auto replies =
        exactLines(converse("{\"id\":1,\"method\":\"prompts/get\",\"params\":{\"name\":\"cleanup_today\"}}\n"
                            "{\"id\":1,\"method\":\"prompts/"
                            "get\",\"params\":{\"name\":\"cleanup_today\",\"arguments\":{\"x\":\"y\"}}}\n"));
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_TRUE(json::parse(replies[0])["result"].contains("messages"));
    EXPECT_EQ(replies[1], replies[0]);
}

TEST(PromptGet, AnUnknownNameIsNamedInTheError) {
    EXPECT_EQ(replyTo(R"({"id":1,"method":"prompts/get","params":{"name":"nope"}})"),
              errorReply(-32001, "unknown prompt `nope`"));
    EXPECT_EQ(replyTo(R"({"id":1,"method":"prompts/get","params":{"name":""}})"),
              errorReply(-32001, "unknown prompt ``"));
}

TEST(PromptGet, CapitalsMakeAnotherName) {
    EXPECT_EQ(replyTo(R"({"id":1,"method":"prompts/get","params":{"name":"Cleanup_Today"}})"),
              errorReply(-32001, "unknown prompt `Cleanup_Today`"));
}

TEST(PromptGet, TheHostIsNeverAsked) {
    ScriptedHost host;
    replyTo(R"({"id":1,"method":"prompts/get","params":{"name":"cleanup_today"}})", host.socketPath());
    EXPECT_EQ(host.connections(), 0);
}

}  // namespace
}  // namespace tidewell::test
