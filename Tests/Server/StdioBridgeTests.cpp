#include "Server/StdioBridge.hpp"

#include "JSON/JSONValue.hpp"

#include "Support/Conversation.hpp"
#include "Support/ExactJSON.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TestNames.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using nlohmann::json;

const std::string initialize = R"("method":"initialize","params":{"protocolVersion":"2024-11-05"})";
const std::string shutdown = R"("method":"shutdown")";
/// Every method that is answered, with what it needs to succeed.
const std::vector<std::string> answered = {
    initialize,
    shutdown,
    R"("method":"ping")",
    R"("method":"tools/list")",
    R"("method":"resources/list")",
    R"("method":"resources/templates/list")",
    R"("method":"prompts/list")",
    R"("method":"tools/call","params":{"name":"x"})",
    R"("method":"resources/read","params":{"uri":"x"})",
    R"("method":"prompts/get","params":{"name":"cleanup_today"})",
};

const json parseError =
    json::parse(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":"Parse error"}})");

/// Requests with one id, one a line.
std::string linesOf(const std::vector<std::string>& requests) {
    std::string lines;
    for (const std::string& request : requests) lines += "{\"id\":7," + request + "}\n";
    return lines;
}

// The read loop.

TEST(ReadLoop, ARequestAcrossAChunkBoundaryIsHandledOnce) {
    // 4090 bytes of blanks put the boundary of the 4096-byte reads inside the request.
    for (std::size_t blanks = 4060; blanks < 4100; ++blanks) {
        const auto replies = repliesTo(std::string(blanks, ' ') + "{\"id\":\"é\",\"method\":\"ping\"}\n");
        ASSERT_EQ(replies.size(), 1U) << blanks;
        EXPECT_EQ(replies[0], json::parse(R"({"jsonrpc":"2.0","id":"é","result":{}})"));
    }
}

TEST(ReadLoop, ALastLineWithoutItsLineFeedIsDropped) {
    EXPECT_EQ(converse("{\"id\":1,\"method\":\"ping\"}"), "");
    EXPECT_EQ(repliesTo("{\"id\":1,\"method\":\"ping\"}\n{\"id\":2,\"method\":\"ping\"}").size(), 1U);
}

TEST(ReadLoop, LineFeedsAloneAreSkipped) { EXPECT_EQ(converse("\n\n\n\n"), ""); }

TEST(ReadLoop, ACarriageReturnBeforeTheLineFeedMakesNoDifference) {
    EXPECT_EQ(converse("{\"id\":1,\"method\":\"ping\"}\r\n"), converse("{\"id\":1,\"method\":\"ping\"}\n"));
}

TEST(ReadLoop, ALineOfBlanksIsAParseError) { EXPECT_EQ(replyTo("   "), parseError); }

TEST(ReadLoop, AReadErrorEndsItLikeTheEndOfInput) {
    EXPECT_EQ(StdioBridge(SocketClient("/nonexistent"), -1, -1).run(), StdioBridge::Ending::inputEnded);
}

TEST(ReadLoop, ItTellsTheEndOfInputFromExit) {
    for (const char* const input : {"", "\n", "{\"id\":1,\"method\":\"ping\"}\n", "{\"method\":\"exit\"}",
                                    "{\"method\":\"exit\"} x\n", "{\"id\":1,\"method\":\"shutdown\"}\n"})
        EXPECT_EQ(hold(input).ending, StdioBridge::Ending::inputEnded) << input;
    for (const char* const input :
         {"{\"method\":\"exit\"}\n", "{\"id\":1,\"method\":\"exit\",\"params\":[]}\n",
          "{\"id\":null,\"method\":\"exit\"}\n{\"id\":1,\"method\":\"ping\"}\n"}) {
        const Conversation conversation = hold(input);
        EXPECT_EQ(conversation.ending, StdioBridge::Ending::exitRequested) << input;
        EXPECT_EQ(conversation.output, "") << input;
    }
    EXPECT_EQ(hold(linesOf({shutdown, R"("method":"exit")"})).ending, StdioBridge::Ending::exitRequested);
}

TEST(ReadLoop, AVeryLongLineIsAnsweredLikeAShortOne) {
    const std::string padding(5'000'000, 'x');
    EXPECT_EQ(replyTo(R"({"id":1,"method":"ping","padding":")" + padding + "\"}")["result"], json::object());
}

// Replies.

TEST(Dispatch, PingIsAnsweredWithAnEmptyObject) {
    EXPECT_EQ(replyTo(R"({"jsonrpc":"2.0","id":3,"method":"ping"})"),
              json::parse(R"({"jsonrpc":"2.0","id":3,"result":{}})"));
}

TEST(Dispatch, WhatIsNoJSONIsAParseError) {
    for (const char* const line :
         {"not json", "{", "{\"id\":1,\"method\":\"ping\"}x", "\xFF", "{\"id\":1e400}"})
        EXPECT_EQ(replyTo(line), parseError) << line;
}

TEST(Dispatch, ATopLevelThatIsNoObjectIsAParseErrorBatchesIncluded) {
    for (const char* const line : {R"([{"id":1,"method":"ping"}])", "[]", "1", "\"x\"", "null", "true"})
        EXPECT_EQ(replyTo(line), parseError) << line;
}

TEST(Dispatch, NotificationsAreNeverAnswered) {
    for (const char* const line : {
             R"({"method":"ping"})",
             R"({"id":null,"method":"ping"})",
             R"({"method":"initialize"})",
             R"({"method":"tools/list"})",
             R"({"method":"resources/list"})",
             R"({"method":"prompts/list"})",
             R"({"method":"no/such/method"})",
             R"({})",
             R"({"id":null})",
             R"({"method":"shutdown"})",
             R"({"method":"prompts/get"})",
             R"({"method":"resources/read","params":{}})",
             R"({"method":"tools/call"})",
             R"({"method":"resources/templates/list"})",
         }) {
        EXPECT_EQ(converse(std::string(line) + "\n"), "") << line;
    }
}

TEST(Dispatch, InitializedIsNeverAnsweredNotEvenWithAnId) {
    EXPECT_EQ(converse("{\"id\":4,\"method\":\"notifications/initialized\"}\n"), "");
    EXPECT_EQ(converse("{\"id\":4,\"method\":\"initialized\"}\n"), "");
}

TEST(Dispatch, ShutdownAnswersNullAndTheNextRequestIsStillAnswered) {
    const auto replies = repliesTo("{\"id\":5,\"method\":\"shutdown\"}\n{\"id\":6,\"method\":\"ping\"}\n");
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0], json::parse(R"({"jsonrpc":"2.0","id":5,"result":null})"));
    EXPECT_EQ(replies[1]["id"], 6);
}

TEST(Dispatch, AnUnknownMethodIsNamedInTheError) {
    EXPECT_EQ(
        replyTo(R"({"id":7,"method":"foo/bar"})"),
        json::parse(
            R"({"jsonrpc":"2.0","id":7,"error":{"code":-32601,"message":"Method not found: foo/bar"}})"));
    EXPECT_EQ(replyTo(R"({"id":7,"method":"Ping"})")["error"]["message"], "Method not found: Ping");
    EXPECT_EQ(replyTo(R"({"id":7,"method":"ping "})")["error"]["message"], "Method not found: ping ");
}

TEST(Dispatch, AMissingOrOddMethodIsTheEmptyMethod) {
    const json expected =
        json::parse(R"({"jsonrpc":"2.0","id":8,"error":{"code":-32601,"message":"Method not found: "}})");
    for (const char* const line : {R"({"id":8})", R"({"id":8,"method":1})", R"({"id":8,"method":null})",
                                   R"({"id":8,"method":["ping"]})", R"({"id":8,"method":""})"}) {
        EXPECT_EQ(replyTo(line), expected) << line;
    }
}

TEST(Dispatch, TemplatesAreAnEmptyList) {
    EXPECT_EQ(replyTo(R"({"id":9,"method":"resources/templates/list"})"),
              json::parse(R"({"jsonrpc":"2.0","id":9,"result":{"resourceTemplates":[]}})"));
}

TEST(Dispatch, TheJSONRPCVersionIsNotLookedAt) {
    for (const char* const line :
         {R"({"jsonrpc":"1.0","id":3,"method":"ping"})", R"({"id":3,"method":"ping"})",
          R"({"jsonrpc":7,"id":3,"method":"ping","more":[1]})"}) {
        EXPECT_EQ(replyTo(line), json::parse(R"({"jsonrpc":"2.0","id":3,"result":{}})")) << line;
    }
}

TEST(Dispatch, ACursorIsIgnoredAndNoneIsSent) {
    const json reply = replyTo(R"({"id":1,"method":"tools/list","params":{"cursor":"x"}})");
    EXPECT_EQ(reply["result"].size(), 1U);
    EXPECT_EQ(reply["result"]["tools"].size(), 60U);
}

TEST(Dispatch, EveryMethodWorksBeforeInitializeAndAfterShutdown) {
    ScriptedHost host;
    for (const std::string& request : answered) {
        const auto replies = exactLines(
            converse(linesOf({request, initialize, request, shutdown, request}), host.socketPath()));
        ASSERT_EQ(replies.size(), 5U) << request;
        EXPECT_TRUE(json::parse(replies[0]).contains("result")) << request;
        EXPECT_EQ(replies[2], replies[0]) << request;
        EXPECT_EQ(replies[4], replies[0]) << request;
    }
}

struct IdCase {
    const char* name;
    const char* id;
    const char* echoed;
};

class IdTest : public testing::TestWithParam<IdCase> {};

TEST_P(IdTest, IsEchoedByItsRule) {
    const std::string expected =
        std::string(R"({"jsonrpc":"2.0","id":)") + GetParam().echoed + R"(,"result":{}})";
    EXPECT_EQ(exactLines(converse(std::string(R"({"method":"ping","id":)") + GetParam().id + "}\n")),
              std::vector{exact(expected)});
}

INSTANTIATE_TEST_SUITE_P(
    Ids, IdTest,
    testing::Values(
        IdCase{"AnIntegerAsItIs", "42", "42"}, IdCase{"ZeroAsItIs", "0", "0"},
        IdCase{"OneStaysANumber", "1", "1"}, IdCase{"NegativeOnesToo", "-7", "-7"},
        IdCase{"TheLargest", "9223372036854775807", "9223372036854775807"},
        IdCase{"TheSmallest", "-9223372036854775808", "-9223372036854775808"},
        IdCase{"OneBelowTheSmallestByLessThanOne", "-9223372036854775808.5", "-9223372036854775808"},
        IdCase{"OneAboveTheLargestByLessThanOne", "9223372036854775807.9", "9223372036854775807"},
        IdCase{"ALongFractionBelowTheLimit", "92233720368547758079e-1", "9223372036854775807"},
        IdCase{"AZeroWithASign", "-0", "0"}, IdCase{"LessThanOne", "-0.9", "0"},
        IdCase{"TheLastOfTwo", "1,\"id\":2.0", "2"}, IdCase{"AWholeFractionAsAnInteger", "3.0", "3"},
        IdCase{"ALargeWholeFractionExactly", "9007199254740993.0", "9007199254740993"},
        IdCase{"TheLargestWithAnExponent", "9223372036854775807e0", "9223372036854775807"},
        IdCase{"AFractionIsCutTowardZero", "2.9", "2"},
        IdCase{"ANegativeFractionIsCutTowardZero", "-2.5", "-2"},
        IdCase{"AStringAsItIs", "\"a/b é\"", "\"a/b é\""}, IdCase{"AnEmptyString", "\"\"", "\"\""},
        IdCase{"TrueCountsAsOne", "true", "1"}, IdCase{"FalseCountsAsZero", "false", "0"},
        IdCase{"AnObjectIsNull", "{}", "null"}, IdCase{"AnArrayIsNull", "[1]", "null"}),
    nameOf);

TEST(Dispatch, AToolCallWithoutAnIdStillReachesTheHost) {
    ScriptedHost host;
    EXPECT_EQ(
        converse("{\"method\":\"tools/call\",\"params\":{\"name\":\"rescan_now\"}}\n", host.socketPath()),
        "");
    ASSERT_EQ(host.received().size(), 1U);
    EXPECT_EQ(host.received()[0]["tool"], "rescan_now");
}

TEST(Dispatch, AResourceReadWithoutAnIdStillReachesTheHostAndItsErrorIsDropped) {
    ScriptedHost host;
    host.replies(R"({"ok":false})");
    EXPECT_EQ(converse("{\"method\":\"resources/read\",\"params\":{\"uri\":\"x\"}}\n", host.socketPath()),
              "");
    EXPECT_EQ(host.received().size(), 1U);
}

TEST(Dispatch, ParamsThatAreNoStructureCountAsNone) {
    for (const char* const params : {"null", "1", "\"x\"", "true", "[]", "[{\"name\":\"x\"}]"}) {
        const json reply = replyTo(std::string(R"({"id":1,"method":"prompts/get","params":)") + params + "}");
        EXPECT_EQ(reply["error"]["code"], -32602) << params;
    }
}

TEST(Dispatch, TheNextRequestWaitsForTheHost) {
    ScriptedHost host;
    host.repliesSlowly(R"({"ok":true,"result":"first"})", 2);
    const auto replies = repliesTo("{\"id\":1,\"method\":\"tools/call\",\"params\":{\"name\":\"x\"}}\n"
                                   "{\"id\":2,\"method\":\"ping\"}\n",
                                   host.socketPath());
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0]["id"], 1);
    EXPECT_EQ(replies[1]["id"], 2);
}

TEST(Dispatch, NeverMoreThanOneRequestIsInFlight) {
    ScriptedHost host;
    std::atomic<int> tooEarly{0};
    host.otherwise([&](const HostConnection& connection) {
        connection.readEnvelope();
        if (host.isAnotherWaiting(100)) ++tooEarly;
        connection.write("{\"ok\":true}\n");
    });
    const auto replies = repliesTo("{\"id\":1,\"method\":\"tools/call\",\"params\":{\"name\":\"x\"}}\n"
                                   "{\"method\":\"tools/call\",\"params\":{\"name\":\"x\"}}\n"
                                   "{\"method\":\"resources/read\",\"params\":{\"uri\":\"x\"}}\n"
                                   "{\"id\":2,\"method\":\"resources/read\",\"params\":{\"uri\":\"x\"}}\n"
                                   "{\"id\":3,\"method\":\"ping\"}\n",
                                   host.socketPath());
    EXPECT_EQ(replies.size(), 3U);
    EXPECT_EQ(host.connections(), 4);
    EXPECT_EQ(tooEarly, 0);
}

TEST(Bridges, TwoRunSideBySideInOneProcess) {
    struct Side {
        const char* hostReply;
        std::string input = {};
        std::string output = {};
    };
    Side sides[] = {{"{\"ok\":true,\"result\":\"left\"}\n"}, {"{\"ok\":true,\"result\":\"right\"}\n"}};
    std::vector<std::thread> threads;
    for (Side& side : sides) {
        for (int round = 0; round < 50; ++round) side.input += linesOf(answered);
        threads.emplace_back([&side] {
            ScriptedHost host;
            host.otherwise([&side](const HostConnection& connection) {
                connection.readEnvelope();
                connection.write(side.hostReply);
            });
            side.output = converse(side.input, host.socketPath());
        });
    }
    for (std::thread& thread : threads) thread.join();

    for (const Side& side : sides) {
        // Every round is identical to the byte, and carries what this side's host app said.
        const std::size_t size = side.output.size() / 50;
        const std::string round = side.output.substr(0, size);
        ASSERT_EQ(exactLines(round).size(), answered.size());
        const std::string said = json(json::parse(side.hostReply)["result"].dump()).dump();
        EXPECT_NE(round.find("\"text\":" + said), round.npos) << said;
        for (std::size_t at = 0; at < side.output.size(); at += size)
            ASSERT_EQ(side.output.compare(at, size, round), 0) << "from byte " << at << " on";
    }
}

// emitLine.

TEST(EmitLine, WritesOneCompactLineWithSlashesUnescaped) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ByteBuffer line;
    JSONValue::object({{"a", "b/c"}}).writeJSON(line);
    emitLine(line, ends[1]);
    std::array<char, 64> received{};
    const ssize_t count = ::read(ends[0], received.data(), received.size());
    EXPECT_EQ(std::string_view(received.data(), static_cast<std::size_t>(count)), "{\"a\":\"b/c\"}\n");
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(EmitLine, AFullNonBlockingPipeIsWaitedForAndNoLineIsCut) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    const std::string text(1'000'000, 'x');  // more than any pipe holds
    std::thread writer([&] {
        for (int written = 0; written < 3; ++written) {
            ByteBuffer line;
            line.append("\"" + text + "\"");
            emitLine(line, ends[1]);
        }
        ::close(ends[1]);
    });
    std::string received;
    std::array<char, 777> chunk{};
    for (ssize_t count = 0; (count = ::read(ends[0], chunk.data(), chunk.size())) > 0;) {
        received.append(chunk.data(), static_cast<std::size_t>(count));
    }
    writer.join();
    ::close(ends[0]);
    const std::string line = "\"" + text + "\"\n";
    EXPECT_TRUE(received == line + line + line);
}

}  // namespace
}  // namespace tidewell::test
