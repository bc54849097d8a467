#include "SocketClient.hpp"

#include "JSONReader.hpp"
#include "MCPError.hpp"
#include "Support/ScriptedHost.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <thread>

namespace tidewell::test {
namespace {

using Clock = std::chrono::steady_clock;

const char* const noResponse = "no response from Tidewell within 120s (app busy or stalled)";

/// The message of the appNotRunning error that a call ends with, or what happened instead.
std::string failureOf(const std::string& path, JSONValue args = JSONValue::object({})) {
    try {
        return "returned " + SocketClient(path).forward("x", std::move(args)).jsonString();
    } catch (const MCPError& error) {
        return error.kind() == MCPError::Case::appNotRunning ? error.message()
                                                             : "another case: " + error.message();
    } catch (const std::exception& error) {
        return std::string("unclassified: ") + error.what();
    }
}

std::string couldNotConnect(const std::string& path) {
    return "could not connect to tidewell-agent.sock at " + path + " — is Tidewell running?";
}

JSONValue replyFrom(ScriptedHost& host) {
    return SocketClient(host.socketPath()).forward("x", JSONValue::object({}));
}

int openDescriptors() {
    int count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor)
        count += ::fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
    return count;
}

/// The environment as a test wants it, and as it was again afterwards.
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

// Where the socket lies.

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
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Connecting, ASocketFileThatNobodyServesIsRefused) {
    const TemporaryFolder folder;
    const std::string path = folder / "host.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
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
    const ScriptedHost host(pathOfLength(folder, sizeof(sockaddr_un::sun_path) - 1));
    EXPECT_EQ(failureOf(host.socketPath()), "returned {\"ok\":true}");
    EXPECT_EQ(host.connections(), 1);
}

TEST(Connecting, APathOneByteLongerFailsWithoutAnAttempt) {
    const TemporaryFolder folder;
    const std::string path = pathOfLength(folder, sizeof(sockaddr_un::sun_path));
    // Neither a listener at the name that a cut path would give must be reached,
    const ScriptedHost host(path.substr(0, path.size() - 1));
    // nor one at the name itself, which fits the record on Linux when its end is left away.
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    EXPECT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener, 1), 0);
    EXPECT_EQ(failureOf(path), couldNotConnect(path));
    EXPECT_EQ(host.connections(), 0);
    ::close(listener);
}

TEST(Connecting, APathThatIsNotUTF8IsRepairedInTheMessageOnly) {
    const TemporaryFolder folder;
    const ScriptedHost host(folder / "\xFF.sock");
    EXPECT_EQ(failureOf(host.socketPath()), "returned {\"ok\":true}");
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
    SocketClient(host.socketPath()).forward("get_repository", JSONValue::object({{"repoId", "a/b"}}));
    const auto envelope = nlohmann::json::parse(raw);
    EXPECT_EQ(envelope.size(), 3U);
    EXPECT_EQ(envelope["tool"], "get_repository");
    EXPECT_EQ(envelope["args"], nlohmann::json::parse(R"({"repoId":"a/b"})"));
    EXPECT_TRUE(
        std::regex_match(envelope["requestId"].get<std::string>(),
                         std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_EQ(raw.find("\\/"), std::string::npos) << "slashes are not escaped";
}

TEST(Exchange, EveryRequestHasAnIdOfItsOwnAndAConnectionOfItsOwn) {
    ScriptedHost host;
    for (int round = 0; round < 50; ++round) replyFrom(host);
    std::set<std::string> ids;
    for (const auto& envelope : host.received()) ids.insert(envelope["requestId"].get<std::string>());
    EXPECT_EQ(ids.size(), 50U);
    EXPECT_EQ(host.connections(), 50);
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
    EXPECT_EQ(replyFrom(host), JSONValue::object({{"ok", true}}));
    EXPECT_EQ(replyFrom(host), JSONValue::object({{"ok", true}}));
}

TEST(Exchange, AReplyThatIsNoJSONThrowsTheReadersErrorAndNoMCPError) {
    ScriptedHost host;
    host.replies("not json").replies("").replies("{\"ok\":true} x").replies("\"\xFF\"");
    for (int reply = 0; reply < 4; ++reply) EXPECT_THROW(replyFrom(host), JSONError);
}

TEST(Exchange, AReplyThatIsNoObjectIsReturnedAsItIs) {
    ScriptedHost host;
    host.replies("\"done\"").replies("[1]").replies("null").replies("1").replies("true");
    EXPECT_EQ(replyFrom(host), JSONValue("done"));
    EXPECT_EQ(replyFrom(host), JSONValue::array({1}));
    EXPECT_EQ(replyFrom(host), JSONValue(nullptr));
    EXPECT_EQ(replyFrom(host), JSONValue(1));
    EXPECT_EQ(replyFrom(host), JSONValue(true));
}

TEST(Exchange, HowAReplyArrivesCannotBeSeen) {
    const std::string reply =
        R"({"ok":true,"result":{"text":"local↔remote — )" + std::string(9000, 'x') + "\"}}";
    ScriptedHost host;
    host.replies(reply).repliesInSingleBytes(reply).repliesInPieces(reply, 4095).repliesInPieces(reply, 4096);
    const JSONValue expected = JSONValue::decode(reply);
    for (int round = 0; round < 4; ++round) EXPECT_EQ(replyFrom(host), expected) << round;
    host.repliesSlowly(R"({"ok":true})", 3);
    EXPECT_EQ(replyFrom(host), JSONValue::object({{"ok", true}}));
}

TEST(Exchange, AReplyOfSeveralMegabytesInManyPiecesIsReadInFull) {
    std::string reply = R"({"ok":true,"result":[0)";
    for (int number = 1; number < 600'000; ++number) reply += "," + std::to_string(number);
    reply += "]}";
    EXPECT_GT(reply.size(), 3'000'000U);
    ScriptedHost host;
    host.repliesInPieces(reply, 1000);
    const JSONValue value = replyFrom(host);
    const auto elements = value.find("result")->elements();
    ASSERT_EQ(elements.size(), 600'000U);
    EXPECT_EQ(elements.back().integer(), 599'999);
}

TEST(Exchange, AWriteToAHostThatHasHungUpFailsWithTheErrorNumberAndEndsNothing) {
    ScriptedHost host;
    host.closesAtOnce();
    const std::string failure = failureOf(host.socketPath(), JSONValue(std::string(4'000'000, 'x')));
    EXPECT_TRUE(failure == "socket write failed: errno=" + std::to_string(EPIPE) ||
                failure == "socket write failed: errno=" + std::to_string(ECONNRESET))
        << failure;
}

TEST(Exchange, EveryPathLeavesNoDescriptorOpen) {
    ScriptedHost host;
    const int before = openDescriptors();
    host.closesAtOnce().closesUnanswered().replies("not json").repliesWithoutLineFeed("{}").replies("{}");
    for (int round = 0; round < 5; ++round)
        failureOf(host.socketPath(), JSONValue(std::string(round == 0 ? 4'000'000 : 1, 'x')));
    // The host's side of the last connection may take a moment.
    const auto deadline = Clock::now() + std::chrono::seconds(5);
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

// The limit counts from the last byte, not from the start: a host app that works in small steps is not cut off.
TEST(ExchangeTimeLimits, AReplyThatDripsOneByteASecondIsReadThoughItTakesMoreThan120Seconds) {
    const std::string reply = R"({"ok":true,"result":")" + std::string(100, 'x') + "\"}";
    ScriptedHost host;
    host.repliesSlowly(reply, 1000);
    const auto start = Clock::now();
    EXPECT_EQ(replyFrom(host), JSONValue::decode(reply));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(121));
}

// The same when writing: the first write moves a little within its 120 seconds, and only
// the second one moves nothing.
TEST(ExchangeTimeLimits, AHostThatNeverReadsIsGivenUpWhenNothingMovesFor120Seconds) {
    ScriptedHost host;
    host.neverReads();
    const auto start = Clock::now();
    EXPECT_EQ(failureOf(host.socketPath(), JSONValue(std::string(4'000'000, 'x'))),
              "socket write failed: errno=" + std::to_string(EAGAIN));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(119));
}

}  // namespace
}  // namespace tidewell::test
