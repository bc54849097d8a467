// SizeTests.cpp: messages far larger, and far more of them, than the program will ever meet: the right answer,
// in time and memory that grow no faster than the message. Linux only: the figures come from /proc.
//
// Time      is the program's processor time, for a message and for one sixteen times its size. Linear cost is
//           sixteen times as much, quadratic cost 256 times. Up to eight times the linear cost passes, so that a
//           busy machine does not make a test fail.
// Memory    is the peak resident size, as a multiple of the message. Nothing large ever becomes a tree: a host
//           app's reply of any shape takes at most 2.3 times its size, a tool's argument at most three times.
#include "Base/Descriptor.hpp"

#include "Support/Process.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TestNames.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tidewell::test {
namespace {

using nlohmann::json;

constexpr double mostForReply = 2.3;
constexpr double mostForArgument = 3;
constexpr double mostForKeys =
    7.5;  // one object of many short members: their positions are kept until its end
constexpr double programBytes = 4e6;  // the program itself, debug builds included
constexpr double sizeRatio = 16;
constexpr double mostTimeRatio = 8 * sizeRatio;
constexpr double leastSeconds = 0.02;  // shorter times measure the start rather than the message

/// A message with a long run of one letter between head and tail; it is never held as a whole.
struct Message {
    std::string head;
    std::string tail = {};
    std::size_t padding = 0;

    double size() const { return static_cast<double>(head.size() + padding + tail.size()); }
};

constexpr char padding = 'x';
constexpr std::size_t longestStrayRun = 64;  // a run longer than this is the padding

/// Writes the message as one line to a Process or a HostConnection.
void send(const auto& receiver, const Message& message) {
    const std::string block(std::size_t{1} << 20, padding);
    receiver.write(message.head);
    for (std::size_t left = message.padding; left > 0; left -= std::min(left, block.size()))
        receiver.write(std::string_view(block).substr(0, left));
    receiver.write(message.tail + "\n");
}

/// Reads until `missing` line feeds have come. Some are still missing if the output ended, or if nothing came for two
/// minutes.
std::string readLines(int descriptor, std::size_t& missing) {
    std::string text;
    std::vector<char> chunk(std::size_t{1} << 20);
    while (missing > 0) {
        pollfd wanted{.fd = descriptor, .events = POLLIN, .revents = 0};
        if (::poll(&wanted, 1, 120'000) <= 0) break;
        const ssize_t got = ::read(descriptor, chunk.data(), chunk.size());
        if (got <= 0) break;
        const std::string_view bytes(chunk.data(), static_cast<std::size_t>(got));
        for (std::size_t at = 0; (at = bytes.find('\n', at)) != bytes.npos; ++at) --missing;
        text += bytes;
    }
    return text;
}

/// The text as JSON once its padding is cut out, which has to be exactly as long as expected.
json readPadded(std::string text, std::size_t expected) {
    const std::size_t at = text.find(std::string(longestStrayRun, padding));
    const std::size_t end = at == text.npos ? text.npos : text.find_first_not_of(padding, at);
    const std::size_t length = end == text.npos ? 0 : end - at;
    EXPECT_EQ(length, expected);
    if (length > 0) text.erase(at, length);
    return json::parse(text, nullptr, false);
}

/// What one conversation with the program produced and what it cost.
struct Handled {
    std::string output;
    std::string envelope;  // what reached the host app
    double processorSeconds = 0;
    double peakBytes = 0;
};

/// One figure of a running process, such as "VmRSS:". The peak does not come from wait4: that may be the
/// parent's, from before the program was loaded.
double memoryBytesOf(pid_t process, std::string_view figure) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    double kibibytes = 0;
    for (std::string word; status >> word;) {
        if (word == figure) status >> kibibytes;
    }
    return kibibytes * 1024;
}

/// Has the program answer `lines` lines, written by `write`, in front of a host app that has one reply, if
/// any.
Handled answer(const std::function<void(const Process&)>& write, std::size_t lines,
               const std::optional<Message>& hostReply = std::nullopt) {
    Handled result;
    std::mutex mutex;
    ScriptedHost host;
    if (hostReply) {
        host.then([&](const HostConnection& connection) {
            std::size_t missing = 1;
            std::string envelope = readLines(connection.descriptor(), missing);
            {
                const std::lock_guard lock(mutex);
                result.envelope = std::move(envelope);
            }
            send(connection, *hostReply);
        });
    }
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) throw std::runtime_error("pipe failed");
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    const Descriptor output(ends[0]);
    Process process({.environment = environmentFor(host.socketPath()), .output = ends[1]});
    ::close(ends[1]);

    std::thread writer([&] { write(process); });
    result.output = readLines(output.get(), lines);
    if (lines > 0) ::kill(process.id(), SIGKILL);  // otherwise the writer might wait for it forever
    writer.join();
    result.peakBytes = memoryBytesOf(process.id(), "VmHWM:");
    process.closeInput();
    EXPECT_EQ(process.wait(), 0);
    result.processorSeconds = process.processorSeconds();
    const std::lock_guard lock(mutex);
    return result;
}

Handled answer(const Message& line, const std::optional<Message>& hostReply) {
    return answer([&](const Process& process) { send(process, line); }, 1, hostReply);
}

void expectLinear(const Handled& small, const Handled& large) {
    EXPECT_LE(large.processorSeconds, mostTimeRatio * std::max(small.processorSeconds, leastSeconds))
        << small.processorSeconds << " s for a sixteenth of it";
}

void expectMemory(const Handled& handled, double multiple, const Message& message) {
    if (TIDEWELL_SANITIZED) return;  // a sanitizer's own memory is a multiple of the program's
    EXPECT_LE(handled.peakBytes, programBytes + multiple * message.size())
        << "that is " << (handled.peakBytes - programBytes) / message.size() << " times its size";
}

json replyWith(const json& result) { return {{"jsonrpc", "2.0"}, {"id", 1}, {"result", result}}; }
json toolResult(const std::string& text, bool isError) {
    const json item = {{"type", "text"}, {"text", text}};
    return replyWith({{"content", json::array({item})}, {"isError", isError}});
}
const std::string toolCall = R"({"id":1,"method":"tools/call","params":{"name":"x"}})";

/// What a failed row prints instead of its bytes.
template <typename Row>
requires requires(Row row) { row.name; }
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

// One long string. Under a sanitizer it would take gigabytes.

struct LongString {
    const char* name;
    Message line;
    std::optional<Message> hostReply;
    bool isReplyPadded;
    json answer;  // with the padding cut out
    double memoryMultiple;
};

class LongStringTest : public testing::TestWithParam<LongString> {};

TEST_P(LongStringTest, OfAQuarterGigabyteTakesLinearTimeAndMemory) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "not under a sanitizer";
    constexpr std::size_t largest = std::size_t{256} << 20;
    std::vector<Handled> both;
    for (const std::size_t size : {largest / 16, largest}) {
        LongString tested = GetParam();
        Message& padded = tested.isReplyPadded ? *tested.hostReply : tested.line;
        padded.padding = size;
        Handled handled = answer(tested.line, tested.hostReply);
        EXPECT_EQ(readPadded(std::move(handled.output), tested.isReplyPadded ? size : 0), tested.answer);
        if (tested.hostReply && !tested.isReplyPadded) {
            EXPECT_EQ(readPadded(std::move(handled.envelope), size)["args"], "");
        }
        if (size == largest) expectMemory(handled, tested.memoryMultiple, padded);
        both.push_back(std::move(handled));
    }
    expectLinear(both[0], both[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Size, LongStringTest,
    // clang-format off
    testing::Values(
        LongString{"InAPing", {R"({"id":1,"method":"ping","padding":")", R"("})"}, {}, false,
                   replyWith(json::object()), 2.5},
        LongString{"InAHostReply", {toolCall}, Message{R"({"ok":true,"result":")", R"("})"}, true,
                   toolResult(R"("")", false), mostForReply},
        LongString{"InAToolCall", {R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":")", R"("}})"},
                   Message{R"({"ok":true})"}, false, toolResult("{}", false), mostForArgument}),
    // clang-format on
    nameOf);

// Many small values in a host app's reply: none of them may cost more than its text.

struct Shape {
    const char* name;
    std::string begin;
    std::string piece;
    std::string end;
};

class ShapeTest : public testing::TestWithParam<Shape> {};

TEST_P(ShapeTest, OfEightMegabytesIsPassedOnInLinearMemory) {
    std::string text = GetParam().begin;
    while (text.size() < 8'000'000) text += GetParam().piece;
    text += GetParam().end;
    const Message reply{R"({"ok":true,"result":)" + text + "}"};
    const Handled handled = answer({toolCall}, reply);
    EXPECT_TRUE(json::parse(handled.output)["result"]["content"][0]["text"] == text);
    expectMemory(handled, mostForReply, reply);
}

INSTANTIATE_TEST_SUITE_P(
    Size, ShapeTest,
    testing::Values(Shape{"Quotes", R"(")", R"(\")", R"(")"}, Shape{"Numbers", "[7", ",7", "]"},
                    Shape{"EmptyStrings", R"(["")", R"(,"")", "]"},
                    Shape{"EmptyObjects", "[{}", ",{},[]", "]"},
                    Shape{"Records", R"([{"id":7})", R"(,{"id":7,"name":"some name"})", "]"}),
    nameOf);

// What is left when a large message has gone.

/// The reply is written before the memory of its line is released. The program is done a moment later, or more on a
/// busy machine.
bool becomesSmall(pid_t process) {
    for (int wait = 0; wait < 6000 && memoryBytesOf(process, "VmRSS:") > 2 * programBytes; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return memoryBytesOf(process, "VmRSS:") <= 2 * programBytes;
}

TEST(Size, TheMemoryOfALargeMessageIsGivenBackBeforeTheNextOne) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "a sanitizer keeps what is freed";
    const std::string large(32'000'000, padding);
    ScriptedHost host;
    host.replies(R"({"ok":true,"result":")" + large + "\"}").replies("{\"ok\":true}");
    Process process({.environment = environmentFor(host.socketPath())});
    process.writeLine(toolCall);
    ASSERT_TRUE(process.readLine().has_value());
    process.writeLine(R"({"id":2,"method":"ping"})");
    ASSERT_TRUE(process.readLine().has_value());
    EXPECT_TRUE(becomesSmall(process.id()));
    process.writeLine(R"({"id":3,"method":"tools/call","params":{"name":"x","arguments":")" + large + "\"}}");
    ASSERT_TRUE(process.readLine().has_value());
    EXPECT_TRUE(becomesSmall(process.id()));
}

// Brackets.

struct Brackets {
    const char* name;
    bool areInReply;
    json answer;
};

class BracketsTest : public testing::TestWithParam<Brackets> {};

TEST_P(BracketsTest, FiveMillionNestedAreRefusedInLinearTimeAndMemory) {
    std::vector<Handled> both;
    for (const std::size_t count : {5'000'000U / 16, 5'000'000U}) {
        const Message nested{std::string(count, '[')};
        const bool areInReply = GetParam().areInReply;
        both.push_back(areInReply ? answer({toolCall}, nested) : answer(nested, std::nullopt));
        EXPECT_EQ(json::parse(both.back().output, nullptr, false), GetParam().answer);
        // A reply is read as it arrives; a line is held, while its buffer grows.
        expectMemory(both.back(), areInReply ? 0 : 2.5, nested);
    }
    expectLinear(both[0], both[1]);
}

INSTANTIATE_TEST_SUITE_P(
    Size, BracketsTest,
    // clang-format off
    testing::Values(
        Brackets{"InALine", false,
                 {{"jsonrpc", "2.0"}, {"id", nullptr}, {"error", {{"code", -32700}, {"message", "Parse error"}}}}},
        Brackets{"InAHostReply", true,
                 toolResult(R"({"error":{"code":"error","message":"invalid JSON at byte 512: nested too deeply"}})", true)}),
    // clang-format on
    nameOf);

// Keys.

struct Keys {
    const char* name;
    bool areDistinct;
    bool areInReply;
};

class KeysTest : public testing::TestWithParam<Keys> {};

std::string keyAt(std::size_t at, bool areDistinct) {
    return areDistinct ? "key" + std::to_string(at) : "key";
}

TEST_P(KeysTest, AHundredThousandInOneObjectArriveInLinearTimeAndMemory) {
    const auto [name, areDistinct, areInReply] = GetParam();
    std::vector<Handled> both;
    for (const std::size_t count : {100'000U / 16, 100'000U}) {
        std::string text = "{";
        json expected = json::object();  // of equal keys the last counts
        for (std::size_t at = 0; at < count; ++at) {
            const std::string key = keyAt(at, areDistinct);
            text += (at == 0 ? "\"" : ",\"") + key + "\":" + std::to_string(at + 2);
            expected[key] = at + 2;  // not 0 and 1, which turn into booleans on their way to the host app
        }
        text += "}";
        const Message call{areInReply ? toolCall
                                      : R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":)" +
                                            text + "}}"};
        const Message reply{areInReply ? R"({"ok":true,"result":)" + text + "}" : R"({"ok":true})"};
        both.push_back(answer(call, reply));
        const Handled& handled = both.back();
        const json result = json::parse(handled.output)["result"];
        EXPECT_EQ(result["isError"], false);
        const json shown = json::parse(result["content"][0]["text"].get<std::string>());
        const json args = json::parse(handled.envelope)["args"];
        EXPECT_TRUE((areInReply ? shown : args) == expected);
        EXPECT_TRUE((areInReply ? args : shown) == json::object());
        expectMemory(handled, mostForKeys, areInReply ? reply : call);
    }
    expectLinear(both[0], both[1]);
}

INSTANTIATE_TEST_SUITE_P(Size, KeysTest,
                         testing::Values(Keys{"DistinctInAToolCall", true, false},
                                         Keys{"EqualInAToolCall", false, false},
                                         Keys{"DistinctInAHostReply", true, true},
                                         Keys{"EqualInAHostReply", false, true}),
                         nameOf);

// Requests.

/// Whether `output` answers pings with the ids 1, 2, 3, … up to `count`, in that order.
void expectPongs(const std::string& output, std::size_t count) {
    // The first reply shows in which order the members come; a line that looks different is read as JSON.
    const std::string first = output.substr(0, output.find('\n'));
    const std::size_t idAt = first.find('1', first.find("\"id\""));
    ASSERT_NE(idAt, first.npos);
    const std::string before = first.substr(0, idAt);
    const std::string after = first.substr(idAt + 1);
    std::size_t at = 0;
    for (std::size_t id = 1; id <= count; ++id) {
        const std::size_t end = output.find('\n', at);
        ASSERT_NE(end, output.npos) << "no reply to " << id;
        const std::string_view line = std::string_view(output).substr(at, end - at);
        if (id == 1 || line != before + std::to_string(id) + after) {
            const json pong = {{"jsonrpc", "2.0"}, {"id", id}, {"result", json::object()}};
            ASSERT_EQ(json::parse(line, nullptr, false), pong);
        }
        at = end + 1;
    }
    EXPECT_EQ(at, output.size());
}

TEST(Size, AMillionPipelinedRequestsAreAnsweredInOrderInLinearTimeWithinTheMemoryOfOne) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "not under a sanitizer";
    std::vector<Handled> both;
    for (const std::size_t count : {1'000'000U / 16, 1'000'000U}) {
        const auto write = [&](const Process& process) {
            std::string lines;
            for (std::size_t id = 1; id <= count; ++id) {
                lines += "{\"id\":" + std::to_string(id) + ",\"method\":\"ping\"}\n";
                if (lines.size() > (std::size_t{1} << 20) || id == count) {
                    process.write(lines);
                    lines.clear();
                }
            }
        };
        both.push_back(answer(write, count));
        expectPongs(both.back().output, count);
        expectMemory(both.back(), 0, {});
    }
    expectLinear(both[0], both[1]);
}

}  // namespace
}  // namespace tidewell::test
