#include "Host/SocketClient.hpp"

#include "Base/MCPError.hpp"
#include "Base/Platform.hpp"
#include "Support/ExactJSON.hpp"
#include "Support/Judge.hpp"
#include "Support/ScriptedHost.hpp"
#include "JSON/JSONReader.hpp"
#include "JSON/JSONValue.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using Clock = std::chrono::steady_clock;

const char* const noResponse = "no response from Tidewell within 120s (app busy or stalled)";

/// The message of the appNotRunning error that a call ends with, or what happened instead.
std::string failureOf(const std::string& path, const std::string& args = "{}") {
    try {
        ByteBuffer result;
        const HostReply reply = SocketClient(path).forward("x", args, result);
        return reply.isSuccess ? "returned " + std::string(result.view()) : "refused";
    } catch (const MCPError& error) {
        return error.kind() == MCPError::Kind::appNotRunning ? error.message()
                                                             : "another case: " + error.message();
    } catch (const std::exception& error) {
        return std::string("unclassified: ") + error.what();
    }
}

std::string couldNotConnect(const std::string& path) {
    return "could not connect to tidewell-agent.sock at " + path + " — is Tidewell running?";
}

/// The text of the result, or "refused" when the reply is not a success. Throws what forward() throws.
std::string replyFrom(ScriptedHost& host) {
    ByteBuffer result;
    const HostReply reply = SocketClient(host.socketPath()).forward("x", "{}", result);
    return reply.isSuccess ? std::string(result.view()) : "refused";
}

/// The same when the result is large: a string of JSON text, as a value.
JSONValue valueFrom(ScriptedHost& host) {
    return JSONValue::decode(*JSONValue::decode("\"" + replyFrom(host) + "\"").string());
}

std::string quoted(std::size_t length) { return "\"" + std::string(length, 'x') + "\""; }

int openDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor)
        count += ::fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
    return count;
}

/// Sets an environment variable for a test, and restores it afterwards.
class Environment {
public:
    Environment(const char* name, const char* value) : name_(name) {
        if (const char* const before = std::getenv(name)) before_ = before;
        set(value);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { set(before_ ? before_->c_str() : nullptr); }

private:
    void set(const char* value) {
        if (value == nullptr) {
            ::unsetenv(name_);
        } else {
            ::setenv(name_, value, 1);
        }
    }
    const char* name_;
    std::optional<std::string> before_;
};

// Where the socket is.

TEST(SocketPath, TheVariableIsUsedAsItIs) {
    for (const char* const path : {"/tmp/x.sock", "~/x.sock", " blanks ", "relative"}) {
        const Environment variable("TIDEWELL_SOCKET_PATH", path);
        EXPECT_EQ(socketPathDefault(), path);
    }
}

TEST(SocketPath, WithoutTheVariableItLiesBelowTheHomeDirectory) {
    const Environment variable("TIDEWELL_SOCKET_PATH", nullptr);
    const Environment home("HOME", "/home/somebody");
    EXPECT_EQ(socketPathDefault(), "/home/somebody/Library/Application Support/Tidewell/tidewell-agent.sock");
}

TEST(SocketPath, AnEmptyVariableCountsAsNone) {
    const Environment variable("TIDEWELL_SOCKET_PATH", "");
    const Environment home("HOME", "/home/somebody");
    EXPECT_EQ(socketPathDefault(), "/home/somebody/Library/Application Support/Tidewell/tidewell-agent.sock");
}

TEST(SocketPath, WithoutAHomeVariableTheUserDatabaseKnows) {
    const Environment variable("TIDEWELL_SOCKET_PATH", nullptr);
    for (const char* const home : {static_cast<const char*>(nullptr), ""}) {
        const Environment unset("HOME", home);
        EXPECT_EQ(socketPathDefault(), std::string(::getpwuid(::getuid())->pw_dir) +
                                           "/Library/Application Support/Tidewell/tidewell-agent.sock");
    }
}

// Connecting.

TEST(Connecting, ATildeIsNotExpanded) { EXPECT_EQ(failureOf("~/x.sock"), couldNotConnect("~/x.sock")); }

TEST(Connecting, WithNoListenerItFailsAtOnceAndLeavesNoDescriptorOpen) {
    const int before = openDescriptors();
    const auto start = Clock::now();
    EXPECT_EQ(failureOf("/nonexistent/host.sock"), couldNotConnect("/nonexistent/host.sock"));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60)) << "half of the time limit";
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Connecting, ASocketFileThatNobodyServesIsRefused) {
    const TemporaryFolder folder;
    const std::string path = folder / "host.sock";
    const int listener = socketAt(path, ::bind);
    EXPECT_EQ(failureOf(path), couldNotConnect(path)) << "bound, but nobody listens";
    ::close(listener);
    EXPECT_EQ(failureOf(path), couldNotConnect(path)) << "left behind";
}

/// A path of exactly this many bytes inside a folder.
std::string pathOfLength(const TemporaryFolder& folder, std::size_t length) {
    const std::string start = folder / "";
    return start + std::string(length - start.size(), 'x');
}

TEST(Connecting, AnOrdinaryFileIsRefused) {
    const TemporaryFolder folder;
    const std::string path = folder.write("host.sock", "text");
    EXPECT_EQ(failureOf(path), couldNotConnect(path));
}

TEST(Connecting, APathThatFillsTheAddressRecordIsAccepted) {
    const TemporaryFolder folder;
    const ScriptedHost host(pathOfLength(folder, Platform::socketPathCapacity - 1));
    EXPECT_EQ(failureOf(host.socketPath()), "returned {}");
    EXPECT_EQ(host.connections(), 1);
}

TEST(Connecting, APathOneByteLongerFailsWithoutAnAttempt) {
    const TemporaryFolder folder;
    const std::string path = pathOfLength(folder, Platform::socketPathCapacity);
    // The call must reach neither a listener at the truncated path,
    const ScriptedHost host(path.substr(0, path.size() - 1));
    // nor one at the full path, which fits the address on Linux without its closing NUL.
    const int listener = socketAt(path, ::bind);
    EXPECT_EQ(::listen(listener, 1), 0);
    EXPECT_EQ(failureOf(path), couldNotConnect(path));
    EXPECT_EQ(host.connections(), 0);
    ::close(listener);
}

TEST(Connecting, APathThatIsNotUTF8IsRepairedInTheMessageOnly) {
    const TemporaryFolder folder;
    const ScriptedHost host(folder / "\xFF.sock");
    EXPECT_EQ(failureOf(host.socketPath()), "returned {}");
    EXPECT_EQ(failureOf("/nonexistent/\xFF"), couldNotConnect("/nonexistent/\xEF\xBF\xBD"));
}

// The exchange.

TEST(Exchange, TheEnvelopeHasItsThreeMembersAndEndsWithALineFeed) {
    ScriptedHost host;
    std::string raw;
    host.then([&](const HostConnection& connection) {
        char byte = 0;
        while (::recv(connection.descriptor(), &byte, 1, 0) == 1 && byte != '\n') raw += byte;
        connection.write("{\"ok\":true}\n");
    });
    ByteBuffer result;
    SocketClient(host.socketPath()).forward("get_repository", R"({"repoId":"a\/b"})", result);
    const std::string id = judgeWritten(raw)["requestId"];
    EXPECT_EQ(exact(raw),
              exact(R"({"tool":"get_repository","args":{"repoId":"a/b"},"requestId":")" + id + "\"}"));
    EXPECT_TRUE(std::regex_match(
        id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_EQ(raw.find("\\/"), std::string::npos) << "slashes are not escaped";
}

TEST(Exchange, TheRequestSideStaysOpenUntilTheReplyIsRead) {
    ScriptedHost host;
    // Until the reply is complete, nothing follows the envelope, not even end of file; then end of file does.
    std::vector<bool> isQuiet;
    host.then([&](const HostConnection& connection) {
        const auto waitForMore = [&](int milliseconds) {
            pollfd more{.fd = connection.descriptor(), .events = POLLIN, .revents = 0};
            isQuiet.push_back(::poll(&more, 1, milliseconds) == 0);
        };
        connection.readEnvelope();
        waitForMore(100);
        connection.write("{\"ok\":true}");
        waitForMore(100);
        connection.write("\n");
        waitForMore(60'000);
    });
    EXPECT_EQ(replyFrom(host), "{}");
    host.stop();
    EXPECT_EQ(isQuiet, (std::vector{true, true, false}));
}

TEST(Exchange, EveryRequestHasAnIdOfItsOwnAndAConnectionOfItsOwn) {
    ScriptedHost host;
    for (int round = 0; round < 50; ++round) replyFrom(host);
    std::set<std::string> ids;
    for (const auto& envelope : host.received()) ids.insert(envelope["requestId"].get<std::string>());
    EXPECT_EQ(ids.size(), 50U);
    EXPECT_EQ(host.connections(), 50);
}

TEST(Exchange, EveryByteOfARequestsIdIsDrawnByItself) {
    ScriptedHost host;
    for (int round = 0; round < 50; ++round) replyFrom(host);
    // Version and variant take the upper bits of two bytes, so the lower ones are compared.
    std::vector<std::vector<int>> bytes(16);
    for (const auto& envelope : host.received()) {
        std::string digits = envelope["requestId"];
        std::erase(digits, '-');
        for (std::size_t at = 0; at < 16; ++at)
            bytes[at].push_back(std::stoi(digits.substr(at * 2, 2), nullptr, 16) & 0x0F);
    }
    EXPECT_EQ(std::set(bytes.begin(), bytes.end()).size(), 16U) << "two bytes are always the same";
    std::set<int> all;
    for (const auto& values : bytes) {
        EXPECT_GE(std::set(values.begin(), values.end()).size(), 8U);
        all.insert(values.begin(), values.end());
    }
    EXPECT_EQ(all.size(), 16U) << "a digit never occurs";
}

TEST(Exchange, AHostThatClosesUnansweredIsNoResponseAtOnce) {
    ScriptedHost host;
    host.closesUnanswered();
    const auto start = Clock::now();
    EXPECT_EQ(failureOf(host.socketPath()), noResponse);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
}

TEST(Exchange, AReplyWithoutItsLineFeedIsNoResponse) {
    ScriptedHost host;
    host.repliesWithoutLineFeed(R"({"ok":true})");
    EXPECT_EQ(failureOf(host.socketPath()), noResponse);
}

TEST(Exchange, WhatFollowsTheFirstLineFeedIsIgnored) {
    ScriptedHost host;
    host.repliesWith("{\"ok\":true}\n{\"x\":1}\n").repliesWith("{\"ok\":true}\n\xFF garbage");
    EXPECT_EQ(replyFrom(host), "{}");
    EXPECT_EQ(replyFrom(host), "{}");
}

TEST(Exchange, AReplyThatIsNoJSONThrowsTheReadersErrorAndNoMCPError) {
    ScriptedHost host;
    host.replies("not json").replies("").replies("{\"ok\":true} x").replies("\"\xFF\"");
    for (int reply = 0; reply < 4; ++reply) EXPECT_THROW(replyFrom(host), JSONError);
}

TEST(Exchange, AReplyThatIsNoObjectIsNoSuccess) {
    ScriptedHost host;
    for (const char* const reply : {"\"done\"", "[1]", "null", "1", "true"}) {
        host.replies(reply);
        EXPECT_EQ(replyFrom(host), "refused") << reply;
    }
}

TEST(Exchange, AReplyThatIsWrongAtItsStartIsStillReadToItsLineFeed) {
    ScriptedHost host;
    host.repliesInPieces("?" + std::string(100'000, 'x'), 1000)
        .repliesWithoutLineFeed("?" + std::string(100'000, 'x'));
    EXPECT_EQ(failureOf(host.socketPath()), "unclassified: invalid JSON at byte 0: expected a value");
    EXPECT_EQ(failureOf(host.socketPath()), noResponse);
}

TEST(Exchange, HowAReplyArrivesCannotBeSeen) {
    const std::string reply =
        R"({"ok":true,"result":{"text":"local↔remote — )" + std::string(9000, 'x') + "\"}}";
    ScriptedHost host;
    host.replies(reply).repliesInSingleBytes(reply).repliesInPieces(reply, 4095).repliesInPieces(reply, 4096);
    const JSONValue expected = *JSONValue::decode(reply).find("result");
    for (int round = 0; round < 4; ++round) EXPECT_EQ(valueFrom(host), expected) << round;
    host.repliesSlowly(R"({"ok":true})", 3);
    EXPECT_EQ(replyFrom(host), "{}");
}

TEST(Exchange, AReplyOfSeveralMegabytesInManyPiecesIsReadInFull) {
    std::string reply = R"({"ok":true,"result":[0)";
    for (int number = 1; number < 600'000; ++number) reply += "," + std::to_string(number);
    reply += "]}";
    EXPECT_GT(reply.size(), 3'000'000U);
    ScriptedHost host;
    host.repliesInPieces(reply, 1000);
    const JSONValue value = valueFrom(host);
    const auto elements = value.elements();
    ASSERT_EQ(elements.size(), 600'000U);
    EXPECT_EQ(elements.back().integer(), 599'999);
}

TEST(Exchange, AWriteToAHostThatHasHungUpFailsWithTheErrorNumberAndEndsNothing) {
    ScriptedHost host;
    host.closesAtOnce();
    const std::string failure = failureOf(host.socketPath(), quoted(4'000'000));
    EXPECT_TRUE(failure == "socket write failed: errno=" + std::to_string(EPIPE) ||
                failure == "socket write failed: errno=" + std::to_string(ECONNRESET))
        << failure;
}

TEST(Exchange, EveryPathLeavesNoDescriptorOpen) {
    ScriptedHost host;
    const int before = openDescriptors();
    host.closesAtOnce().closesUnanswered().replies("not json").repliesWithoutLineFeed("{}").replies("{}");
    for (int round = 0; round < 5; ++round) failureOf(host.socketPath(), quoted(round == 0 ? 4'000'000 : 1));
    // The host may close its side of the last connection a moment later.
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (openDescriptors() != before && Clock::now() < deadline) std::this_thread::yield();
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ExchangeTimeLimits, AHostThatStaysSilentIsGivenUpAfter120Seconds) {
    ScriptedHost host;
    host.staysSilent();
    const auto start = Clock::now();
    EXPECT_EQ(failureOf(host.socketPath()), noResponse);
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(119));
}

// The limit counts from the last byte, not from the start: a host app that replies bit by bit is not cut off.
TEST(ExchangeTimeLimits, AReplyThatDripsOneByteASecondIsReadThoughItTakesMoreThan120Seconds) {
    const std::string reply = R"({"ok":true,"result":")" + std::string(100, 'x') + "\"}";
    ScriptedHost host;
    host.repliesSlowly(reply, 1000);
    const auto start = Clock::now();
    EXPECT_EQ(valueFrom(host).string(), std::string(100, 'x'));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(121));
}

// The same when writing: the first write moves a little within its 120 seconds; only the second moves nothing.
TEST(ExchangeTimeLimits, AHostThatNeverReadsIsGivenUpWhenNothingMovesFor120Seconds) {
    ScriptedHost host;
    host.neverReads();
    const auto start = Clock::now();
    EXPECT_EQ(failureOf(host.socketPath(), quoted(4'000'000)),
              "socket write failed: errno=" + std::to_string(EAGAIN));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(119));
}

}  // namespace
}  // namespace tidewell::test
