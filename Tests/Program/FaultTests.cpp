// FaultTests.cpp: every system call that the program makes fails, each way it can. Whatever happens, the
// outcome is the defined one, the next request works, and nothing is left behind.
#include "Base/ByteBuffer.hpp"
#include "Base/LineBuffer.hpp"
#include "Host/Worker.hpp"
#include "Server/ServerVersion.hpp"
#include "Server/StdioBridge.hpp"

#include "Support/ExactJSON.hpp"
#include "Support/Faults.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TestNames.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using nlohmann::json;

const std::string resourceRead = R"({"id":1,"method":"resources/read","params":{"uri":"x"}})";
const std::string toolCall =
    R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":{"path":"/a/b"}}})";
const std::string ping = R"({"id":2,"method":"ping"})";
/// How running out of memory is reported.
const std::string outOfMemory = R"("error":{"code":-32603,"message":"Internal error: std::bad_alloc"})";
const std::string toolOutOfMemory =
    R"("result":{"content":[{"type":"text","text":"{\"error\":{\"code\":\"error\",\"message\":\"std::bad_alloc\"}}"}],"isError":true})";
const std::string pingReply = R"({"jsonrpc":"2.0","id":2,"result":{}})";

using Names = std::set<std::string>;

Names namesIn(const char* folder) {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.insert(entry.path().filename());
    return names;
}
Names openDescriptors() { return namesIn("/proc/self/fd"); }
Names threads() { return namesIn("/proc/self/task"); }

/// What is there now and was not before. Names are compared, not counts: `before` may hold a thread that was
/// joined and is about to leave the system's list.
Names addedTo(const Names& before, Names (*now)()) {
    Names added;
    std::ranges::set_difference(now(), before, std::inserter(added, added.end()));
    return added;
}

/// What was added and stays. The host app may close its side of a connection a moment later, and a joined thread
/// may stay in the list for a moment.
Names leftBehind(const Names& before, Names (*now)()) {
    for (int wait = 0; !addedTo(before, now).empty() && wait < 60'000; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return addedTo(before, now);
}

/// A client that speaks to a bridge over a pipe each way while one kind of call fails.
class Client {
public:
    explicit Client(const std::string& socketPath) : socketPath_(socketPath) {}

    /// Everything the bridge writes for these lines, as lines.
    std::vector<std::string> converse(const std::vector<std::string>& lines, Call call, Fault fault,
                                      int outputFlags = 0) {
        std::array<int, 2> in{};
        std::array<int, 2> out{};
        EXPECT_EQ(::pipe(in.data()), 0);
        EXPECT_EQ(::pipe(out.data()), 0);
        ::fcntl(out[1], F_SETFL, outputFlags);
        std::string input;
        for (const std::string& line : lines) input += line + "\n";
        std::thread writer([&] {
            // A bridge that ends early must not kill the tests; only this thread blocks the signal.
            sigset_t brokenPipe;
            ::sigemptyset(&brokenPipe);
            ::sigaddset(&brokenPipe, SIGPIPE);
            ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
            for (std::string_view rest = input; !rest.empty();) {
                const ssize_t count = ::write(in[1], rest.data(), rest.size());
                if (count <= 0) break;
                rest.remove_prefix(static_cast<std::size_t>(count));
            }
            ::close(in[1]);
        });
        std::string output;
        output.reserve(8 << 20);  // before memory is limited
        std::thread reader([&] {
            std::array<char, 4096> chunk{};
            for (ssize_t count = 0; (count = ::read(out[0], chunk.data(), chunk.size())) > 0;) {
                output.append(chunk.data(), static_cast<std::size_t>(count));
            }
        });
        {
            const Faults faults(call, fault, in[0], out[1]);
            const LittleMemory limit(memoryLimit);
            StdioBridge(SocketClient(socketPath_), in[0], out[1]).run();
            calls_ = faults.calls();
        }
        ::close(in[0]);
        ::close(out[1]);
        writer.join();
        reader.join();
        ::close(out[0]);
        std::istringstream stream(output);
        std::vector<std::string> replies;
        for (std::string line; std::getline(stream, line);) replies.push_back(line);
        return replies;
    }

    /// From this size on, in bytes, allocations by the bridge are refused.
    std::size_t memoryLimit = SIZE_MAX;
    /// How often the call was made in the last conversation.
    int calls() const { return calls_; }

private:
    std::string socketPath_;
    int calls_ = 0;
};

struct FaultCase {
    const char* name;
    Call call;
    Fault fault;
    std::string message;  // of the resource read's error; empty where it must succeed
};

class ExchangeFaultTest : public testing::TestWithParam<FaultCase> {};

TEST_P(ExchangeFaultTest, HasItsOutcomeAndTheNextRequestsWork) {
    ScriptedHost host;
    Client client(host.socketPath());
    const Names descriptorsBefore = openDescriptors();
    const Names threadsBefore = threads();
    host.replies(R"({"ok":true,"result":"fine"})").replies(R"({"ok":true,"result":"fine"})");

    const auto replies =
        client.converse({resourceRead, ping, resourceRead}, GetParam().call, GetParam().fault);
    EXPECT_GT(client.calls(), GetParam().fault.after) << "the fault never happened";
    ASSERT_EQ(replies.size(), 3U);
    const json first = json::parse(replies[0]);
    if (GetParam().message.empty()) {
        EXPECT_EQ(first["result"]["contents"][0]["text"], "\"fine\"");
    } else {
        const std::string expected = GetParam().message == "connect"
                                         ? "could not connect to tidewell-agent.sock at " +
                                               host.socketPath() + " — is Tidewell running?"
                                         : GetParam().message;
        EXPECT_EQ(first.value(json::json_pointer("/error/message"), ""), expected) << replies[0];
    }
    EXPECT_EQ(replies[1], pingReply);
    EXPECT_TRUE(json::parse(replies[2]).contains("result")) << replies[2];

    EXPECT_EQ(leftBehind(descriptorsBefore, openDescriptors), Names());
    EXPECT_EQ(leftBehind(threadsBefore, threads), Names());
}

std::string writeFailed(int error) { return "socket write failed: errno=" + std::to_string(error); }
const std::string noResponse = "no response from Tidewell within 120s (app busy or stalled)";

INSTANTIATE_TEST_SUITE_P(
    Host, ExchangeFaultTest,
    testing::Values(
        FaultCase{"NoDescriptorInTheProcess", Call::socket, {.error = EMFILE}, "connect"},
        FaultCase{"NoDescriptorInTheSystem", Call::socket, {.error = ENFILE}, "connect"},
        FaultCase{"NoMemoryForASocket", Call::socket, {.error = ENOMEM}, "connect"},
        FaultCase{"NobodyListens", Call::connect, {.error = ECONNREFUSED}, "connect"},
        FaultCase{"NoSuchPath", Call::connect, {.error = ENOENT}, "connect"},
        FaultCase{"NoPermission", Call::connect, {.error = EACCES}, "connect"},
        FaultCase{"AFullBacklog", Call::connect, {.error = EAGAIN}, "connect"},
        FaultCase{"AnInterruptedConnect", Call::connect, {.error = EINTR}, "connect"},
        FaultCase{"NoTimeLimitForReading", Call::setsockopt, {.error = EDOM}, ""},
        FaultCase{"NoTimeLimitForWriting", Call::setsockopt, {.error = EDOM, .after = 1}, ""},
        FaultCase{"AnInterruptedRequest", Call::sendRequest, {.error = EINTR, .times = 3}, ""},
        FaultCase{"ARequestInSingleBytes", Call::sendRequest, {.atMost = 1, .times = 100000}, ""},
        FaultCase{"ARequestToAHostThatHungUp", Call::sendRequest, {.error = EPIPE}, writeFailed(EPIPE)},
        FaultCase{"ARequestThatIsReset", Call::sendRequest, {.error = ECONNRESET}, writeFailed(ECONNRESET)},
        FaultCase{"ARequestThatWaitsTooLong", Call::sendRequest, {.error = EAGAIN}, writeFailed(EAGAIN)},
        FaultCase{"ARequestWithoutBufferSpace", Call::sendRequest, {.error = ENOBUFS}, writeFailed(ENOBUFS)},
        // A send that moves nothing sets no errno, so the one from the interruption stays.
        FaultCase{"ARequestThatMovesNothingAfterAnInterruption",
                  Call::sendRequest,
                  {.error = EINTR, .result = 0},
                  writeFailed(EINTR)},
        FaultCase{"AnInterruptedReply", Call::readReply, {.error = EINTR, .times = 3}, ""},
        FaultCase{"AReplyInSingleBytes", Call::readReply, {.atMost = 1, .times = 100000}, ""},
        FaultCase{"AReplyThatIsReset", Call::readReply, {.error = ECONNRESET}, noResponse},
        FaultCase{"AReplyThatTakesTooLong", Call::readReply, {.error = EAGAIN}, noResponse},
        FaultCase{"AReplyThatCannotBeRead", Call::readReply, {.error = EIO}, noResponse},
        FaultCase{"ACloseThatIsInterrupted", Call::close, {.error = EINTR}, ""},
        FaultCase{"ACloseThatFails", Call::close, {.error = EIO}, ""},
        FaultCase{"NoRandomNumbers", Call::getentropy, {.error = ENOSYS}, "could not make a request id"}),
    nameOf);

TEST(ExchangeFaults, AReplyIsReadInPiecesOf4096Bytes) {
    for (const auto& [size, reads] : {std::pair<std::size_t, int>(4096, 1), {4097, 2}}) {
        ScriptedHost host;
        const std::string reply = R"({"ok":true})";
        host.replies(reply + std::string(size - reply.size() - 1, ' '));
        Client client(host.socketPath());
        EXPECT_EQ(client.converse({toolCall}, Call::readReply, {.after = INT_MAX}).size(), 1U);
        EXPECT_EQ(client.calls(), reads) << size;
    }
}

TEST(ExchangeFaults, AnInterruptedCloseIsNotRepeated) {
    // Its number may belong to another file by then.
    ScriptedHost host;
    Client client(host.socketPath());
    client.converse({toolCall}, Call::close, {.error = EINTR});
    EXPECT_EQ(client.calls(), 1);
}

TEST(ExchangeFaults, AToolCallTellsOfNoneOfThemButThatTheAppIsNotRunning) {
    ScriptedHost host;
    Client client(host.socketPath());
    for (const Call call : {Call::socket, Call::connect, Call::sendRequest, Call::readReply}) {
        const auto replies = client.converse({toolCall}, call, {.error = EIO});
        ASSERT_EQ(replies.size(), 1U);
        EXPECT_EQ(json::parse(json::parse(replies[0])["result"]["content"][0]["text"]
                                  .get<std::string>())["error"]["message"],
                  "Tidewell is not running — start the app to use this tool.");
    }
}

TEST(ExchangeFaults, AToolCallWithoutRandomNumbersIsAnErrorOfItsOwn) {
    Client client("/nonexistent/host.sock");
    const auto replies = client.converse({toolCall}, Call::getentropy, {.error = ENOSYS});
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(json::parse(json::parse(replies[0])["result"]["content"][0]["text"].get<std::string>()),
              json::parse(R"({"error":{"code":"error","message":"could not make a request id"}})"));
}

struct OutputCase {
    const char* name;
    Call call;
    Fault fault;
    std::vector<std::string> replies;
};

class OutputFaultTest : public testing::TestWithParam<OutputCase> {};

TEST_P(OutputFaultTest, HasItsOutcome) {
    Client client("/nonexistent/host.sock");
    EXPECT_EQ(client.converse({ping, ping}, GetParam().call, GetParam().fault), GetParam().replies);
    EXPECT_GT(client.calls(), 0) << "the fault never happened";
}

INSTANTIATE_TEST_SUITE_P(
    Client, OutputFaultTest,
    testing::Values(
        OutputCase{"AnInterruptedWriteGoesOn",
                   Call::writeOutput,
                   {.error = EINTR, .times = 3},
                   {pingReply, pingReply}},
        OutputCase{"WritesOfSingleBytesGoOn",
                   Call::writeOutput,
                   {.atMost = 1, .times = 100000},
                   {pingReply, pingReply}},
        OutputCase{"AWriteThatWouldBlockIsWaitedFor",
                   Call::writeOutput,
                   {.error = EAGAIN, .times = 3},
                   {pingReply, pingReply}},
        OutputCase{"AFullDiskDropsThatReplyOnly", Call::writeOutput, {.error = ENOSPC}, {pingReply}},
        OutputCase{"AnInputOutputErrorDropsThatReplyOnly", Call::writeOutput, {.error = EIO}, {pingReply}},
        OutputCase{"AWriteThatMovesNothingDropsThatReplyOnly", Call::writeOutput, {.atMost = 0}, {pingReply}},
        OutputCase{"AFailedReadEndsTheConversation", Call::readInput, {.error = EIO}, {}},
        OutputCase{"AnInterruptedReadEndsItToo", Call::readInput, {.error = EINTR}, {}},
        OutputCase{"ReadsOfSingleBytesGoOn",
                   Call::readInput,
                   {.atMost = 1, .times = 100000},
                   {pingReply, pingReply}}),
    nameOf);

TEST(InputFaults, TheInputIsReadInPiecesOf4096Bytes) {
    for (const auto& [size, reads] : {std::pair<std::size_t, int>(4096, 1), {4097, 2}}) {
        Client client("/nonexistent/host.sock");
        const std::string line = ping + std::string(size - ping.size() - 1, ' ');
        EXPECT_EQ(client.converse({line}, Call::readInput, {.after = INT_MAX}), std::vector{pingReply});
        EXPECT_EQ(client.calls(), reads + 1) << "with the one that finds the end";
    }
}

TEST(OutputFaults, WaitingForAFullOutputMayBeInterrupted) {
    // The reader starts at once, but the replies fill the pipe faster than it reads them.
    Client client("/nonexistent/host.sock");
    const std::vector<std::string> lines(30, R"({"id":1,"method":"tools/list"})");
    const auto replies = client.converse(lines, Call::pollOutput, {.error = EINTR, .times = 2}, O_NONBLOCK);
    ASSERT_EQ(replies.size(), 30U);
    for (const std::string& reply : replies) EXPECT_EQ(reply, replies.front());
}

// Memory.

TEST(MemoryFaults, ALineThatCannotBeHeldIsAnsweredAndTheNextOneCounts) {
    const std::string line = R"({"id":1,"method":"ping","padding":")" + std::string(3'000'000, 'x') + "\"}";
    Client client("/nonexistent/host.sock");
    client.memoryLimit = 1'000'000;
    const auto replies = client.converse({line, ping}, Call::none, {});
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0], R"({"jsonrpc":"2.0","id":null,)" + outOfMemory + "}");
    EXPECT_EQ(replies[1], pingReply);
}

TEST(MemoryFaults, ABufferTakesLittleMoreThanItNeedsWhereThereIsLittle) {
    ByteBuffer buffer;
    buffer.append(std::string(1'500'000, 'x'));
    const LittleMemory little(3'000'000);
    buffer.append(std::string(1'000'000, 'y'));  // growing as usual would ask for six
    EXPECT_EQ(buffer.view().substr(1'499'999, 2), "xy");
    EXPECT_THROW(buffer.room(1'000'000), std::bad_alloc);
    EXPECT_EQ(buffer.size(), 2'500'000U);
}

TEST(MemoryFaults, ALineThatCannotBeHeldIsDroppedToItsEndAndNoFurther) {
    LineBuffer buffer;
    EXPECT_TRUE(buffer.append("kept\nthe start of"));
    EXPECT_EQ(buffer.nextLine(), "kept");
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    {
        const std::string large(3'000'000, 'x');
        const LittleMemory little(1'000'000);
        EXPECT_FALSE(buffer.append(large));
    }
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
    EXPECT_TRUE(buffer.append(" a line that was given up\nnext\n"));
    EXPECT_EQ(buffer.nextLine(), "next");
    EXPECT_EQ(buffer.nextLine(), std::nullopt);
}

TEST(MemoryFaults, WhatFollowsALineThatCannotBeHeldCountsAlsoInTheSamePiece) {
    // The buffer would have to grow for the piece in which the line ends, and there is no memory for that. What
    // follows the line in that piece counts as much as what comes in later pieces.
    std::string line = R"({"id":1,"method":"ping","padding":")";
    line += std::string((1 << 20) - 200 - line.size(), 'x') + "\"}";
    std::vector<std::string> lines(200, ping);
    lines.insert(lines.begin(), line);
    Client client("/nonexistent/host.sock");
    client.memoryLimit = (1 << 20) + 1;
    const auto replies = client.converse(lines, Call::none, {});
    ASSERT_EQ(replies.size(), lines.size());
    EXPECT_EQ(replies[0], R"({"jsonrpc":"2.0","id":null,)" + outOfMemory + "}");
    for (std::size_t at = 1; at < lines.size(); ++at) EXPECT_EQ(replies[at], pingReply);
}

TEST(MemoryFaults, ALineOfManyValuesTakesNoMemoryBesideItsText) {
    std::string line = R"({"id":1,"method":"ping","padding":[7)";
    for (int number = 0; number < 200'000; ++number) line += ",7";
    Client client("/nonexistent/host.sock");
    client.memoryLimit = 1'000'000;
    const auto replies = client.converse({line + "]}", ping}, Call::none, {});
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0], R"({"jsonrpc":"2.0","id":1,"result":{}})");
    EXPECT_EQ(replies[1], pingReply);
}

TEST(MemoryFaults, AHostReplyThatCannotBeHeldIsAToolError) {
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":")" + std::string(3'000'000, 'x') + "\"}");
    Client client(host.socketPath());
    const Names before = openDescriptors();
    client.memoryLimit = 1'000'000;
    const auto replies = client.converse({toolCall, ping}, Call::none, {});
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(json::parse(json::parse(replies[0])["result"]["content"][0]["text"].get<std::string>()),
              json::parse(R"({"error":{"code":"error","message":"std::bad_alloc"}})"));
    EXPECT_EQ(replies[1], pingReply);
    EXPECT_EQ(leftBehind(before, openDescriptors), Names());
}

TEST(MemoryFaults, AReplyThatCannotBeWrittenIsAnErrorUnderItsId) {
    // The host app's reply fits, but it grows as JSON text inside JSON text: each quote ends up as four bytes, and
    // the id is added. The limit lies between what reading needs and what the line needs.
    std::string quotes;
    for (int pair = 0; pair < 300'000; ++pair) quotes += "\\\"";
    ScriptedHost host;
    for (int call = 0; call < 2; ++call) host.replies(R"({"ok":true,"result":")" + quotes + "\"}");
    const std::string id(200'000, 'i');
    Client client(host.socketPath());
    client.memoryLimit = 1'300'000;
    const auto replies =
        client.converse({R"({"id":")" + id + R"(","method":"tools/call","params":{"name":"x"}})",
                         R"({"id":")" + id + R"(","method":"resources/read","params":{"uri":"x"}})", ping},
                        Call::none, {});
    ASSERT_EQ(replies.size(), 3U);
    const std::string start = R"({"jsonrpc":"2.0","id":")" + id + R"(",)";
    EXPECT_TRUE(exact(replies[0]) == exact(start + toolOutOfMemory + "}"))
        << replies[0].substr(start.size(), 200);
    EXPECT_TRUE(exact(replies[1]) == exact(start + outOfMemory + "}"))
        << replies[1].substr(start.size(), 200);
    EXPECT_EQ(replies[2], pingReply);
}

TEST(MemoryFaults, ANotificationThatRunsOutOfMemoryStaysUnanswered) {
    ScriptedHost host;
    Client client(host.socketPath());
    client.memoryLimit = 1'000'000;
    for (const char* const notification : {R"({"method":"resources/read","params":{"uri":"x"}})",
                                           R"({"id":null,"method":"tools/call","params":{"name":"x"}})"}) {
        host.replies(R"({"ok":true,"result":")" + std::string(3'000'000, 'x') + "\"}");
        EXPECT_EQ(client.converse({notification, ping}, Call::none, {}), std::vector{pingReply});
    }
    EXPECT_EQ(host.connections(), 2);
}

/// What a bridge wrote while allocations were refused, and whether that ended it.
struct Outcome {
    std::vector<std::string> replies;
    bool hasEnded = false;
    int allocations = 0;
};

/// A bridge reads `lines`, each in a read of its own. The client has no thread, so that all allocations are the
/// program's own; a host app must spare its thread.
Outcome allocate(const std::vector<std::string>& lines, const std::string& socketPath, int first, int last) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, in.data()), 0);
    EXPECT_EQ(::pipe(out.data()), 0);
    for (const std::string& line : lines) ::send(in[1], (line + "\n").data(), line.size() + 1, 0);
    ::send(in[1], "", 0, 0);  // an empty packet reads like the end of input
    Outcome outcome;
    {
        StdioBridge bridge(SocketClient(socketPath), in[0], out[1]);
        const Allocations allocations(first, last);
        try {
            bridge.run();
        } catch (const std::bad_alloc&) {
            outcome.hasEnded = true;  // main() does not catch it: the process ends
        }
        outcome.allocations = allocations.count();
    }
    for (const int end : {in[0], in[1], out[1]}) ::close(end);
    std::string output(65536, '\0');  // all that a pipe holds
    const ssize_t count = ::read(out[0], output.data(), output.size());
    output.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    ::close(out[0]);
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) outcome.replies.push_back(line);
    EXPECT_TRUE(output.empty() || output.back() == '\n') << "a reply was cut: " << output;
    return outcome;
}

TEST(Memory, APingIsAnsweredWithoutAnAllocation) {
    for (
        const std::string line : {
            R"({"jsonrpc":"2.0","id":1234567,"method":"ping"})",
            R"({"jsonrpc":"2.0","id":1234567,"method":"ping","params":{}})",
            R"({"jsonrpc":"2.0","id":"123e4567-e89b-12d3-a456-426614174000","method":"ping"})",
            R"({"method":"ping","params":{"_meta":{"progressToken":1}},"jsonrpc":"2.0","id":"123e4567-e89b-12d3-a456-426614174000"})",
        }) {
        // The first ping allocates the buffers, which stay.
        const Outcome one =
            allocate({line}, "/nonexistent/host.sock", Allocations::never, Allocations::never);
        const Outcome four = allocate({line, line, line, line}, "/nonexistent/host.sock", Allocations::never,
                                      Allocations::never);
        ASSERT_EQ(four.replies.size(), 4U);
        EXPECT_GT(one.allocations, 0) << "nothing is counted";
        EXPECT_EQ(four.allocations, one.allocations) << line;
    }
}

struct AllocationCase {
    const char* name;
    const char* line;
    const char* hostReply;  // null: there is no host app
};

class AllocationTest : public testing::TestWithParam<AllocationCase> {
protected:
    AllocationTest() {
        if (GetParam().hostReply == nullptr) return;
        host_.emplace();
        // Small enough for the host's thread to copy it without an allocation.
        host_->otherwise([reply = GetParam().hostReply](const HostConnection& connection) {
            const SparedThread spared;
            connection.readEnvelope();
            connection.write(reply);
            connection.write("\n");
        });
    }

    /// One exchange between two pings; the first ping allocates the buffers.
    Outcome exchange(int first, int last) {
        return allocate({ping, GetParam().line, ping}, host_ ? host_->socketPath() : "/nonexistent/host.sock",
                        first, last);
    }

    /// Running out of memory, as it must be reported: under the request's id, or without one if the line could
    /// not be read.
    static bool isDefinedError(const std::string& reply) {
        const std::string start = R"({"jsonrpc":"2.0","id":)";
        const json line = json::parse(GetParam().line, nullptr, false);
        for (const std::string& id : {std::string("null"), std::string("2"),
                                      (line.is_object() ? line.value("id", json()) : json()).dump()}) {
            for (const std::string& outcome : {outOfMemory, toolOutOfMemory}) {
                if (exact(reply) == exact(start + id + "," + outcome + "}")) return true;
            }
        }
        return false;
    }

    std::optional<ScriptedHost> host_;
};

TEST_P(AllocationTest, EachMayFailAndTheNextRequestWorks) {
    std::set<std::string> seen;
    Outcome outcome;
    int refused = 0;
    for (bool wasRefused = true; wasRefused; ++refused) {
        outcome = exchange(refused, refused);
        wasRefused = refused < outcome.allocations;
        ASSERT_FALSE(outcome.hasEnded) << "by allocation " << refused;
        ASSERT_FALSE(outcome.replies.empty()) << "by allocation " << refused;
        EXPECT_EQ(outcome.replies.back(), pingReply) << "after allocation " << refused;
        ASSERT_EQ(outcome.replies.size(), 3U) << "by allocation " << refused;
        seen.insert(outcome.replies.begin(), outcome.replies.end());
    }
    EXPECT_GT(refused, 2) << "nothing was refused";
    // In the last round nothing was refused, so its replies are the right ones.
    for (const std::string& reply : seen) {
        const bool isRight = std::ranges::find(outcome.replies, reply) != outcome.replies.end();
        EXPECT_TRUE(isRight || isDefinedError(reply)) << reply;
    }
    EXPECT_EQ(isDefinedError(outcome.replies[1]), false) << outcome.replies[1];
}

TEST_P(AllocationTest, WhenAllFailFromOneOnNothingWrongIsWritten) {
    const Outcome right = exchange(Allocations::never, Allocations::never);
    Outcome outcome;
    for (int first = 0; first == 0 || first - 1 < outcome.allocations; ++first) {
        outcome = exchange(first, Allocations::never);
        for (const std::string& reply : outcome.replies) {
            const bool isRight = std::ranges::find(right.replies, reply) != right.replies.end();
            EXPECT_TRUE(isRight || isDefinedError(reply)) << reply;
        }
        EXPECT_TRUE(outcome.hasEnded || outcome.replies.size() == 3) << "from allocation " << first << " on";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Memory, AllocationTest,
    testing::Values(
        AllocationCase{"APing", R"({"id":1,"method":"ping"})", nullptr},
        AllocationCase{"AnEscapedId", R"({"id":"\u00e9\n","method":"ping"})", nullptr},
        AllocationCase{"ABrokenLine", "not json", nullptr}, AllocationCase{"NoObject", "[]", nullptr},
        AllocationCase{"AnUnknownMethod", R"({"id":1,"method":"no/such/method/at/all"})", nullptr},
        AllocationCase{"Initialize",
                       R"({"id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05"}})",
                       nullptr},
        AllocationCase{"Tools", R"({"id":1,"method":"tools/list"})", nullptr},
        AllocationCase{"Resources", R"({"id":1,"method":"resources/list"})", nullptr},
        AllocationCase{"Prompts", R"({"id":1,"method":"prompts/list"})", nullptr},
        AllocationCase{"APrompt", R"({"id":1,"method":"prompts/get","params":{"name":"cleanup_today"}})",
                       nullptr},
        AllocationCase{"AnUnknownPrompt", R"({"id":1,"method":"prompts/get","params":{"name":"nope"}})",
                       nullptr},
        AllocationCase{"AToolWithoutAName", R"({"id":1,"method":"tools/call"})", nullptr},
        AllocationCase{"AToolWithoutAHost", R"({"id":1,"method":"tools/call","params":{"name":"x"}})",
                       nullptr},
        AllocationCase{
            "ATool",
            R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":{"a":[1,{"b":"\n"}],"a":2}}})",
            R"({"ok":true,"result":{"a":[1,{"b":"\n"}],"a":2}})"},
        AllocationCase{"AToolThatIsRefused", R"({"id":1,"method":"tools/call","params":{"name":"x"}})",
                       R"({"ok":false,"error":{"code":"c","message":"a longer message","hint":"h"}})"},
        AllocationCase{"AToolsGarbage", R"({"id":1,"method":"tools/call","params":{"name":"x"}})", "garbage"},
        AllocationCase{"AResource",
                       R"({"id":1,"method":"resources/read","params":{"uri":"tidewell://settings"}})",
                       R"({"ok":true,"result":{"a":[1,{"b":"\n"}],"a":2}})"},
        AllocationCase{"AResourceThatIsRefused", R"({"id":1,"method":"resources/read","params":{"uri":"x"}})",
                       R"({"ok":false,"error":{"message":"a longer message"}})"}),
    nameOf);

TEST(Memory, ANotificationStaysUnansweredWhicheverAllocationFails) {
    ScriptedHost host;
    host.otherwise([](const HostConnection& connection) {
        const SparedThread spared;
        connection.readEnvelope();
        connection.write("{\"ok\":true}\n");
    });
    for (const std::string notification :
         {R"({"method":"resources/read","params":{"uri":"tidewell://settings"}})",
          R"({"method":"tools/call","params":{"name":"x"}})",
          R"({"method":"prompts/get","params":{"name":"nope"}})", R"({"method":"no/such/method/at/all"})"}) {
        Outcome outcome;
        for (int refused = 0; refused == 0 || refused - 1 < outcome.allocations; ++refused) {
            outcome = allocate({ping, notification, ping}, host.socketPath(), refused, refused);
            ASSERT_FALSE(outcome.hasEnded) << "by allocation " << refused;
            EXPECT_EQ(outcome.replies.size(), 2U) << notification << ", allocation " << refused;
            EXPECT_EQ(outcome.replies.back(), pingReply);
        }
    }
}

TEST(Worker, ItsThreadBeginsWithTheFirstJobAndEndsWithTheWorker) {
    std::thread([] {}).join();  // a sanitizer starts a thread of its own along with the first one
    const Names before = threads();
    {
        Worker worker;
        EXPECT_EQ(addedTo(before, threads), Names());
        worker.run([] {});
        worker.run([] {});
        EXPECT_EQ(addedTo(before, threads).size(), 1U);
    }
    EXPECT_EQ(leftBehind(before, threads), Names());
}

TEST(MemoryFaults, WithoutLargePagesALargeReplyIsAnsweredAllTheSame) {
    const std::string text(8'000'000, 'x');
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":")" + text + "\"}");
    Client client(host.socketPath());
    const auto replies = client.converse({toolCall, ping}, Call::madvise, {.error = EINVAL, .times = 100000});
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(json::parse(replies[0])["result"]["content"][0]["text"], '"' + text + '"');
    EXPECT_EQ(replies[1], pingReply);
    EXPECT_GT(client.calls(), 0) << "the fault never happened";
}

// The version.

TEST(VersionFaults, EachFailureFallsThroughToTheNextSource) {
    EXPECT_EQ(resolveServerVersion(), TIDEWELL_VERSION) << "the build folder has a version file";
    for (const Call call : {Call::open, Call::readFile}) {
        const Faults faults(call, {.error = EIO});
        EXPECT_EQ(resolveServerVersion(), "0.0.0-dev") << static_cast<int>(call);
        EXPECT_EQ(faults.calls(), 1);
    }
}

TEST(VersionFaults, AnInterruptedReadOfTheFileGoesOn) {
    const Faults faults(Call::readFile, {.error = EINTR, .times = 2});
    EXPECT_EQ(resolveServerVersion(), TIDEWELL_VERSION);
}

TEST(VersionFaults, WithoutASystemThatTellsThePathItIsTheNameItWasStartedBy) {
    const Faults faults(Call::readlink, {.error = ENOENT});
    EXPECT_EQ(resolveServerVersion(),
              TIDEWELL_VERSION);  // ctest starts this program by its full path
    EXPECT_EQ(faults.calls(), 1);
}

}  // namespace
}  // namespace tidewell::test
