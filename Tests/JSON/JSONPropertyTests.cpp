// JSONPropertyTests.cpp: what must hold for every input, tried on random input. An independent JSON library
// is the judge.
#include "Base/Platform.hpp"
#include "JSON/JSONReader.hpp"
#include "JSON/JSONTree.hpp"
#include "JSON/JSONValue.hpp"
#include "JSON/JSONWriter.hpp"

#include "Support/Conversation.hpp"
#include "Support/Judge.hpp"
#include "Support/JudgedValue.hpp"
#include "Support/RandomJSON.hpp"
#include "Support/ScriptedHost.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <thread>

namespace tidewell::test {
namespace {

using nlohmann::json;

std::string rewritten(std::string_view text, NumberRule rule) {
    ByteBuffer out;
    rewriteJSON(text, rule, out);
    return std::string(out.view());
}

TEST(JSONWriter, OfEqualKeysTheLastStaysWhateverStandsBeforeThem) {
    EXPECT_EQ(rewritten(R"({"a long key":1,"other":2,"a long key":3})", NumberRule::keep),
              R"({"other":2,"a long key":3})");
    EXPECT_EQ(rewritten(R"({"first":1,"key":2,"yek":3,"key":4})", NumberRule::keep),
              R"({"first":1,"yek":3,"key":4})");
}

TEST(JSONWriter, OfEqualKeysTheLastStaysInAnObjectOfAnySize) {
    for (int others = 0; others < 40; ++others) {
        std::string between;
        for (int at = 0; at < others; ++at) between += "\"k" + std::to_string(at) + "\":0,";
        const std::string text = "{\"key\":1," + between + "\"key\":2}";
        const std::string expected = "{" + between + "\"key\":2}";
        EXPECT_EQ(rewritten(text, NumberRule::keep), expected);
        EXPECT_EQ(JSONValue::decode(text).jsonString(), expected);
    }
}

TEST(JSONProperties, WhatIsReadIsWhatTheJudgeReadsAndIsWrittenBackEqual) {
    RandomJSON random(testSeed());
    for (int round = 0; round < 20'000; ++round) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", round " + std::to_string(round));
        const std::string text = random.value().dump(random.chance(20) ? 2 : -1, ' ', random.chance(30));
        const json said = judge(text).value();
        const JSONValue decoded = JSONValue::decode(text);
        ASSERT_TRUE(agrees(decoded, said)) << text;
        const std::string written = decoded.jsonString();
        ASSERT_EQ(JSONValue::decode(written), decoded) << written;
        ASSERT_TRUE(agrees(decoded, judgeWritten(written))) << written;
        ASSERT_EQ(rewritten(text, NumberRule::keep), written) << text;
        const std::string converted = rewritten(text, NumberRule::oneAndZeroAreBooleans);
        ASSERT_TRUE(agrees(JSONValue::decode(converted), withBooleans(said))) << text;
    }
}

TEST(JSONProperties, DamagedTextIsAcceptedOrRefusedAsTheJudgeDoes) {
    RandomJSON random(testSeed());
    int accepted = 0;
    for (int round = 0; round < 40'000; ++round) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", round " + std::to_string(round));
        const std::string text = random.damaged(random.value(3).dump());
        const std::optional<json> said = judge(text);
        try {
            const JSONValue ours = JSONValue::decode(text);
            ASSERT_TRUE(said) << "accepted: " << text;
            ASSERT_TRUE(agrees(ours, *said)) << text;
            ++accepted;
        } catch (const JSONError& error) {
            ASSERT_FALSE(said) << "refused: " << text << ": " << error.what();
        }
    }
    EXPECT_GT(accepted, 5'000) << "both verdicts have to be common for this to mean something";
}

/// Reads `text` with `consumer`; the reason when it is not JSON, else nothing.
std::string readWith(auto& consumer, std::string_view text) {
    try {
        JSONReader reader(text);
        reader.readValue(consumer);
        reader.readEnd();
        return "";
    } catch (const JSONError& error) {
        return error.what();
    }
}

TEST(JSONProperties, RewritingInOnePassIsDecodingAndWriting) {
    RandomJSON random(testSeed());
    for (int round = 0; round < 20'000; ++round) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", round " + std::to_string(round));
        std::string text = random.value().dump(-1, ' ', random.chance(30));
        if (random.chance(50)) text = random.damaged(text);
        JSONTree tree;
        const std::string reason = readWith(tree, text);
        ByteBuffer plain;
        JSONWriter<JSONForm::plain> plainWriter(plain);
        ASSERT_EQ(readWith(plainWriter, text), reason) << text;
        ByteBuffer inside;
        JSONWriter<JSONForm::insideString> insideWriter(inside);
        ASSERT_EQ(readWith(insideWriter, text), reason) << text;
        if (!reason.empty()) continue;
        const std::string written = tree.take().jsonString();
        ASSERT_EQ(plain.view(), written) << text;
        ASSERT_EQ("\"" + std::string(inside.view()) + "\"", JSONValue(written).jsonString()) << text;
    }
}

TEST(JSONProperties, DoublesSurviveTheWayOutAndIn) {
    std::mt19937_64 engine(testSeed());
    for (int round = 0; round < 50'000; ++round) {
        const std::uint64_t bits = engine();
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        if (!std::isfinite(value)) continue;
        const std::string text = JSONValue(value).jsonString();
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
        const JSONValue decoded = JSONValue::decode(text);
        const auto whole = decoded.integer();
        ASSERT_EQ(whole ? static_cast<double>(*whole) : decoded.real().value_or(0), value) << text;
    }
}

/// The number exactly between two neighbouring doubles, with all its digits.
std::string midpoint(std::mt19937_64& engine) {
    const std::uint64_t bits = engine() & INT64_MAX;
    double below = 0;
    std::memcpy(&below, &bits, sizeof below);
    if (!std::isfinite(below)) return "2.5e0";
    const double above = std::nextafter(below, HUGE_VAL);
    if (!std::isfinite(above)) return "1.7976931348623158e308";
    const long double middle = (static_cast<long double>(below) + static_cast<long double>(above)) / 2;
    std::array<char, 1200> text{};
    const int length = std::snprintf(text.data(), text.size(), "%.1100Le", middle);
    return {text.data(), static_cast<std::size_t>(length)};
}

/// 1 to 25 digits with or without a point, and an exponent up to and beyond the range of doubles.
std::string decimal(RandomJSON& random) {
    std::string text = random.chance(50) ? "-" : "";
    text += static_cast<char>('1' + random.upTo(8));
    const std::size_t more = random.upTo(24);
    const std::size_t point = random.upTo(30);
    for (std::size_t digit = 0; digit < more; ++digit) {
        if (digit == point) text += '.';
        text += static_cast<char>('0' + random.upTo(9));
    }
    if (random.chance(30)) return text;
    return text + 'e' + std::to_string(static_cast<int>(random.upTo(680)) - 350);
}

/// Where the C++ library reads doubles, it reads nearly all of them; elsewhere strtod() does. Both must be right.
TEST(JSONProperties, DoublesAreReadAsTheCLibraryReadsThem) {
    const std::string zeros(44, '0');
    std::vector<std::string> texts = {
        "5e-324", "4.9e-324", "2.4703282292062328e-324", "2.4703282292062327e-324", "2.2250738585072011e-308",
        "1e-400", "-1e-400",  "1.7976931348623157e308",  "1.7976931348623159e308",  "1e400",
        "-1e400"};
    // Below the range of doubles, and as long as the copies that strtod() gets, or one byte more or less.
    for (const char* const digits : {"123456789012", "1234567890123", "12345678901234"})
        texts.push_back("0." + zeros + digits + "e-400");
    RandomJSON random(testSeed());
    std::mt19937_64 engine(testSeed());
    for (int round = 0; round < 30'000; ++round) texts.push_back(decimal(random));
    for (int round = 0; round < 1000; ++round) {
        const std::string text = midpoint(engine);
        texts.push_back(text);
        // The digit added at the end now decides which double is nearer.
        const std::size_t mark = text.find('e');
        texts.push_back(text.substr(0, mark) + "1" + text.substr(mark));
    }

    const bool libraryReads = Platform::parseDouble("0.5").has_value();
    int outOfRange = 0;
    for (const std::string& text : texts) {
        const double expected = std::strtod(text.c_str(), nullptr);
        if (const auto read = Platform::parseDouble(text)) {
            ASSERT_EQ(std::bit_cast<std::uint64_t>(*read), std::bit_cast<std::uint64_t>(expected)) << text;
        } else {
            ++outOfRange;
            ASSERT_TRUE(!libraryReads || expected == 0 || !std::isfinite(expected)) << text;
        }
        if (!std::isfinite(expected)) {
            ASSERT_THROW(JSONValue::decode(text), JSONError) << text;
            continue;
        }
        const JSONValue decoded = JSONValue::decode(text);
        const auto whole = decoded.integer();
        ASSERT_EQ(whole ? static_cast<double>(*whole) : decoded.real(), expected) << text;
    }
    EXPECT_GT(outOfRange, 1000) << "the ends of the range have to be common for this to mean something";
}

/// A line as a client might send it, valid or not.
std::string randomLine(RandomJSON& random, int id) {
    static constexpr const char* methods[] = {"ping",
                                              "tools/list",
                                              "prompts/list",
                                              "prompts/get",
                                              "initialize",
                                              "shutdown",
                                              "tools/call",
                                              "resources/read",
                                              "no/such",
                                              "initialized",
                                              "notifications/initialized",
                                              "resources/templates/list"};
    if (random.chance(10)) {
        std::string garbage = random.damaged(random.value(2).dump());
        std::erase(garbage, '\n');
        return garbage;
    }
    json message = {{"jsonrpc", "2.0"}, {"method", methods[random.upTo(std::size(methods) - 1)]}};
    if (random.chance(85)) message["id"] = random.chance(80) ? json(id) : json(random.string());
    if (random.chance(50)) message["params"] = {{"name", random.string()}, {"uri", random.string()}};
    if (random.chance(20)) message["params"] = random.value(3);
    return message.dump();
}

/// What the bridge writes when its input arrives in packets of the given sizes: each read gets one.
std::string converseInPackets(std::string_view input, RandomJSON& random, std::size_t largest) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()) != 0) throw std::runtime_error("socketpair failed");
    std::FILE* const out = std::tmpfile();
    std::thread writer([&] {
        while (!input.empty()) {
            const std::size_t size = std::min(1 + random.upTo(largest - 1), input.size());
            const ssize_t count = ::send(ends[1], input.data(), size, MSG_NOSIGNAL);
            if (count <= 0) break;
            input.remove_prefix(static_cast<std::size_t>(count));
        }
        ::send(ends[1], "", 0, 0);  // an empty packet reads like the end of input
    });
    StdioBridge(SocketClient("/nonexistent/host.sock"), ends[0], ::fileno(out)).run();
    writer.join();
    for (const int end : ends) ::close(end);
    std::string output(static_cast<std::size_t>(::lseek(::fileno(out), 0, SEEK_END)), '\0');
    const ssize_t count = ::pread(::fileno(out), output.data(), output.size(), 0);
    std::fclose(out);
    if (count != static_cast<ssize_t>(output.size())) throw std::runtime_error("short read");
    return output;
}

TEST(ConversationProperties, HowTheInputIsCutCannotBeSeenInTheOutput) {
    RandomJSON random(testSeed());
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", round " + std::to_string(round));
        std::string input;
        for (int line = 0; line < 30; ++line)
            input += randomLine(random, line) + (random.chance(20) ? "\r\n" : "\n");
        const std::string expected = converse(input);
        for (const std::size_t largest : {1UL, 7UL, 300UL, 4096UL}) {
            ASSERT_EQ(converseInPackets(input, random, largest), expected) << input;
        }
    }
}

TEST(ConversationProperties, EveryRequestGetsOneValidReplyLineInOrderWhateverTheHostAnswers) {
    RandomJSON random(testSeed());
    ScriptedHost host;
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE("seed " + std::to_string(testSeed()) + ", round " + std::to_string(round));
        std::string input;
        constexpr int requests = 20;
        for (int id = 0; id < requests; ++id) {
            const char* const method = random.chance(70) ? "tools/call" : "resources/read";
            input +=
                json{{"id", id}, {"method", method}, {"params", {{"name", "x"}, {"uri", "y"}}}}.dump() + "\n";
            json reply = random.value(3);
            if (random.chance(60)) reply = {{"ok", random.chance(50) ? json(true) : random.value(0)}};
            if (reply.is_object() && random.chance(60)) reply["result"] = random.value(4);
            if (reply.is_object() && random.chance(40))
                reply["error"] = {{"code", random.value(0)}, {"message", random.value(0)}};
            const std::string text = reply.dump();
            host.repliesWith((random.chance(30) ? random.damaged(text) : text) +
                             (random.chance(90) ? "\n" : ""));
        }
        const std::vector<json> replies = repliesTo(input, host.socketPath());
        ASSERT_EQ(replies.size(), static_cast<std::size_t>(requests));
        for (int id = 0; id < requests; ++id) {
            const json& reply = replies[static_cast<std::size_t>(id)];
            ASSERT_EQ(reply["id"], id);
            ASSERT_EQ(reply["jsonrpc"], "2.0");
            ASSERT_EQ(reply.size(), 3U);
            ASSERT_NE(reply.contains("result"), reply.contains("error")) << reply;
            if (reply.contains("result") && reply["result"].contains("content")) {
                ASSERT_NO_THROW(judgeWritten(reply["result"]["content"][0]["text"].get<std::string>()))
                    << reply;
            }
        }
    }
}

}  // namespace
}  // namespace tidewell::test
