#include "Base/UTF8.hpp"
#include "JSON/JSONReader.hpp"
#include "JSON/JSONTree.hpp"
#include "JSON/JSONValue.hpp"

#include "Support/Pieces.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tidewell {
namespace {

using namespace std::string_view_literals;

struct ReadCase {
    const char* name;
    std::string_view text;
    const char* written;  // as compact JSON; null when the text is refused
};

class JSONReaderTest : public testing::TestWithParam<ReadCase> {};

TEST_P(JSONReaderTest, AcceptsOrRefusesByTheRules) {
    const ReadCase& example = GetParam();
    if (example.written == nullptr) {
        EXPECT_THROW(JSONValue::decode(example.text), JSONError);
    } else {
        EXPECT_EQ(JSONValue::decode(example.text).jsonString(), example.written);
    }
}

constexpr ReadCase accepted[] = {
    {"ABareWord", "true", "true"},
    {"ABareNumber", "-12", "-12"},
    {"ABareString", "\"x\"", "\"x\""},
    {"AllFourBlanksAroundTheValue", " \t\r\n{ } \r\n\t", "{}"},
    {"ACarriageReturnBehindTheValue", "{\"a\":1}\r", "{\"a\":1}"},
    {"BlanksBetweenAllTokens", " { \"a\" : [ 1 , 2 ] , \"b\" : { } } ", "{\"a\":[1,2],\"b\":{}}"},
    {"NestedEmptyContainers", "[[],{},[[]],{\"a\":[]}]", "[[],{},[[]],{\"a\":[]}]"},
    {"EverySimpleEscape", R"("\"\\\/\b\f\n\r\t")", R"("\"\\/\b\f\n\r\t")"},
    {"HexadecimalEscapesInEitherCase", R"("\u00e9\u00E9\u0041")", "\"ééA\""},
    {"ASurrogatePair", R"("\ud834\uDD1E")", "\"𝄞\""},
    {"AnEscapedNUL", R"("\u0000")", R"("\u0000")"},
    {"RawTwoThreeAndFourByteCharacters", "\"é—𝄞\"", "\"é—𝄞\""},
    {"TheLastCodePoint", "\"\xF4\x8F\xBF\xBF\"", "\"\xF4\x8F\xBF\xBF\""},
    {"DELIsAnOrdinaryCharacter", "\"\x7F\"", "\"\x7F\""},
    {"TheLastOfDuplicateKeysWins", R"({"a":1,"b":2,"a":3})", R"({"b":2,"a":3})"},
    {"AnEscapedKeyEqualsItsPlainForm", R"({"a":1,"\u0061":2})", R"({"a":2})"},
    {"AnEmptyKey", R"({"":1})", R"({"":1})"},
    {"AFraction", "0.25", "0.25"},
    {"AnExponentWithAPlus", "25E+1", "250"},
    {"AnExponentWithLeadingZeros", "1e0002", "100"},
    {"AFractionWithManyZeros", "0.000000000000000000000000000001", "1e-30"},
    {"ADoubleThatTakesTheSlowPath", "9007199254740993.5", "9007199254740994"},
    {"ANumberTooSmallForADoubleIsZero", "1e-400", "0"},
    {"ALongFraction", "0.1000000000000000055511151231257827021181583404541015625", "0.1"},
    {"TheLargestDouble", "1.7976931348623157e308", "1.7976931348623157e+308"},
    {"ZeroWithAHugeExponent", "0e999999999999", "0"},
    {"NineteenNinesAreRoundedToADouble", "9999999999999999999", "1e+19"},
};

constexpr ReadCase refused[] = {
    {"NothingAtAll", "", nullptr},
    {"BlanksOnly", "   ", nullptr},
    {"TwoValues", "1 2", nullptr},
    {"ACommaBehindTheLastElement", "[1,]", nullptr},
    {"ACommaBehindTheLastMember", R"({"a":1,})", nullptr},
    {"ACommaOnly", "[,]", nullptr},
    {"AMissingComma", "[1 2]", nullptr},
    {"AMissingColon", R"({"a" 1})", nullptr},
    {"AKeyThatIsNoString", "{1:2}", nullptr},
    {"ABareKey", "{a:1}", nullptr},
    {"AValueMissing", R"({"a":})", nullptr},
    {"CrossedBrackets", "[{]}", nullptr},
    {"AnUnclosedArray", "[1", nullptr},
    {"AnUnclosedObject", R"({"a":1)", nullptr},
    {"AnUnclosedString", "\"abc", nullptr},
    {"AStringThatEndsInABackslash", "\"abc\\", nullptr},
    {"ATooManyBracket", "[]]", nullptr},
    {"SingleQuotes", "'a'", nullptr},
    {"AComment", "1 // one", nullptr},
    {"AByteOrderMark", "\xEF\xBB\xBF{}", nullptr},
    {"ANULBehindTheValue", "{}\0"sv, nullptr},
    {"ANULInsideAString", "\"\0\""sv, nullptr},
    {"AVerticalTabAsBlank", "\v1", nullptr},
    {"AFormFeedAsBlank", "1\f", nullptr},
    {"ARawControlCharacterInAString", "\"a\nb\"", nullptr},
    {"ARawTabInAString", "\"\t\"", nullptr},
    {"AnUnknownEscape", R"("\x41")", nullptr},
    {"AShortHexadecimalEscape", R"("\u12")", nullptr},
    {"AWrongHexadecimalDigit", R"("\u12G4")", nullptr},
    {"ALoneHighSurrogate", R"("\ud834")", nullptr},
    {"ALoneLowSurrogate", R"("\udd1e")", nullptr},
    {"AHighSurrogateBeforeAnotherCharacter", R"("\ud834x")", nullptr},
    {"AHighSurrogateBeforeAnotherEscape", R"("\ud834\n")", nullptr},
    {"TwoHighSurrogates", R"("\ud834\ud834")", nullptr},
    {"AContinuationByteAlone", "\"\x80\"", nullptr},
    {"ATruncatedCharacter", "\"\xE2\x80\"", nullptr},
    {"AnOverlongSlash", "\"\xC0\xAF\"", nullptr},
    {"AnOverlongThreeByteForm", "\"\xE0\x80\x80\"", nullptr},
    {"ASurrogateInUTF8", "\"\xED\xA0\x80\"", nullptr},
    {"ACodePointBeyondTheLast", "\"\xF4\x90\x80\x80\"", nullptr},
    {"AByteThatNeverOccursInUTF8", "\"\xFF\"", nullptr},
    {"InvalidUTF8InAKey", "{\"\xFF\":1}", nullptr},
    {"InvalidUTF8OutsideAnyString", "{}\xFF", nullptr},
    {"ALeadingZero", "01", nullptr},
    {"ALeadingPlus", "+1", nullptr},
    {"AMinusAlone", "-", nullptr},
    {"APointWithoutDigitsBehind", "1.", nullptr},
    {"APointWithoutDigitsBefore", ".5", nullptr},
    {"AnExponentWithoutDigits", "1e", nullptr},
    {"AnExponentSignWithoutDigits", "1e+", nullptr},
    {"AHexadecimalNumber", "0x10", nullptr},
    {"NotANumber", "NaN", nullptr},
    {"Infinity", "Infinity", nullptr},
    {"ANumberBeyondTheRangeOfADouble", "1e400", nullptr},
    {"ANegativeNumberBeyondTheRangeOfADouble", "-1e400", nullptr},
    {"AnExponentBeyondAnyInteger", "1e99999999999999999999", nullptr},
    {"AWordCutShort", "tru", nullptr},
    {"AWordInCapitals", "True", nullptr},
    {"AWordRunningOn", "nullx", nullptr},
};

INSTANTIATE_TEST_SUITE_P(Accepts, JSONReaderTest, testing::ValuesIn(accepted), test::nameOf);
INSTANTIATE_TEST_SUITE_P(Refuses, JSONReaderTest, testing::ValuesIn(refused), test::nameOf);

std::string nested(std::size_t levels, std::string_view open, std::string_view close) {
    std::string text;
    for (std::size_t level = 0; level < levels; ++level) text += open;
    text += "1";
    for (std::size_t level = 0; level < levels; ++level) text += close;
    return text;
}

TEST(JSONReader, NestingIsAcceptedAtTheLimitAndRefusedOnePastIt) {
    EXPECT_EQ(maximumNesting, 512U);
    EXPECT_EQ(JSONValue::decode(nested(512, "[", "]")).jsonString(), nested(512, "[", "]"));
    EXPECT_THROW(JSONValue::decode(nested(513, "[", "]")), JSONError);
    EXPECT_NO_THROW(JSONValue::decode(nested(512, "{\"a\":", "}")));
    EXPECT_THROW(JSONValue::decode(nested(513, "{\"a\":", "}")), JSONError);
    EXPECT_THROW(JSONValue::decode(nested(512, "[", "]").replace(512, 1, "[]")), JSONError)
        << "an empty one counts too";
}

TEST(JSONReader, AnExponentCountsInFullHoweverManyDigitsStandBeforeIt) {
    const std::string zeros(2'000'000, '0');
    EXPECT_EQ(JSONValue::decode("1" + zeros + "e-20000000").integer(), 0);
    EXPECT_EQ(JSONValue::decode("1" + zeros + "e-2000000").integer(), 1);
    EXPECT_EQ(JSONValue::decode("0." + zeros + "1e2000001").integer(), 1);
    EXPECT_THROW(JSONValue::decode("0." + zeros + "1e20000000"), JSONError);
    EXPECT_THROW(JSONValue::decode("1e99999999999999999999"), JSONError);
    EXPECT_EQ(JSONValue::decode("1e-99999999999999999999").integer(), 0);
}

TEST(JSONReader, FiveMillionBracketsAreRefused) {
    EXPECT_THROW(JSONValue::decode(std::string(5'000'000, '[')), JSONError);
    EXPECT_THROW(JSONValue::decode(std::string(5'000'000, '{')), JSONError);
}

TEST(JSONReader, EveryTruncationOfATextIsRefused) {
    constexpr auto text = R"({"a":[1,-2.5e3,"x\u00e9\ud834\udd1ey",true,false,null,{}],"b":{"c":"—"}})"sv;
    EXPECT_NO_THROW(JSONValue::decode(text));
    for (std::size_t size = 0; size < text.size(); ++size) {
        EXPECT_THROW(JSONValue::decode(text.substr(0, size)), JSONError) << text.substr(0, size);
    }
}

TEST(JSONReader, EveryBitOfASurrogatePairCounts) {
    const auto escaped = [](std::uint32_t unit) {
        std::ostringstream text;
        text << "\\u" << std::hex << unit;  // a surrogate has four digits
        return text.str();
    };
    for (int bit = 0; bit < 20; ++bit) {
        const std::uint32_t beyond = std::uint32_t{1} << bit;
        std::string expected;
        appendScalar(expected, 0x10000 + beyond);
        const std::string text =
            "\"" + escaped(0xD800 + beyond / 0x400) + escaped(0xDC00 + beyond % 0x400) + "\"";
        EXPECT_EQ(JSONValue::decode(text).string(), expected) << text;
    }
}

TEST(JSONReader, TheErrorSaysWhatAndWhere) {
    struct Row {
        std::string text;
        std::size_t offset;
        const char* reason;
    };
    const std::vector<Row> rows = {
        {"not json", 0, "expected a value"},
        {"tru", 0, "expected a value"},
        {"-", 1, "expected a value"},
        {"", 0, "unexpected end of the text"},
        {"[1", 2, "unexpected end of the text"},
        {"\"a", 2, "unexpected end of the text"},
        {"\"\\", 2, "unexpected end of the text"},
        {"\"\\u12", 5, "unexpected end of the text"},
        {"1e", 2, "unexpected end of the text"},
        {"1 2", 2, "expected the end of the text"},
        {R"({"a":1 "b"})", 7, "expected ',' or '}'"},
        {"[1 2]", 3, "expected ',' or ']'"},
        {"[01]", 2, "expected ',' or ']'"},
        {"{1:2}", 1, "expected a string as key"},
        {R"({"a":1,2})", 7, "expected a string as key"},
        {R"({"a" 1})", 5, "expected ':'"},
        {"\"a\x01\"", 2, "control character inside a string"},
        {"\"a\xFF\"", 2, "invalid UTF-8"},
        {R"("\x")", 2, "unknown escape"},
        {R"("\u12G4")", 5, "expected four hexadecimal digits"},
        {R"("\u-123")", 3, "expected four hexadecimal digits"},
        {R"("\u+123")", 3, "expected four hexadecimal digits"},
        {R"("\u 123")", 3, "expected four hexadecimal digits"},
        {R"("\u0x41")", 4, "expected four hexadecimal digits"},
        {R"("\udc00")", 7, "unpaired surrogate"},
        {R"("\ud834A")", 7, "unpaired surrogate"},
        {R"("\ud834\u0041")", 13, "unpaired surrogate"},
        {"[1.]", 3, "expected a digit"},
        {"[1e+]", 4, "expected a digit"},
        {"[1e400]", 1, "number out of range"},
        {std::string(513, '['), 512, "nested too deeply"},
    };
    for (const auto& [text, offset, reason] : rows) {
        try {
            JSONValue::decode(text);
            ADD_FAILURE() << text << " was accepted";
        } catch (const JSONError& error) {
            EXPECT_EQ(error.offset(), offset) << text;
            EXPECT_EQ(error.what(), "invalid JSON at byte " + std::to_string(offset) + ": " + reason) << text;
        }
    }
}

/// The outcome of reading: the value, or the reason why there is none.
std::string outcome(JSONReader& reader) {
    try {
        JSONTree tree;
        reader.readValue(tree);
        reader.readEnd();
        return tree.take().jsonString();
    } catch (const JSONError& error) {
        return error.what();
    }
}

TEST(JSONReader, HowATextIsCutIntoPiecesCannotBeSeen) {
    std::vector<std::string> texts = {
        R"({"a":[1,-2.5e3,"x\u00e9\ud834\udd1ey",true,false,null,{}],"b":{"c":"—𝄞"}})",
        "  [ 123456789012345678901234567890 , 12.50 , -0 ]  ", "1e400", "[1e", "tru"};
    for (const auto& row : accepted) texts.emplace_back(row.text);
    for (const auto& row : refused) texts.emplace_back(row.text);
    for (const std::string& text : texts) {
        JSONReader whole(text);
        const std::string expected = outcome(whole);
        for (const std::size_t size : {1U, 2U, 3U, 5U, 7U, 16U}) {
            test::Pieces pieces(text, size);
            JSONReader reader(pieces);
            EXPECT_EQ(outcome(reader), expected) << size << ": " << text;
        }
    }
}

TEST(JSONReader, AnObjectIsReadMemberByMember) {
    JSONReader reader(R"( {"a" : [1, {}] , "\u0062":"x","a":2} )");
    std::vector<std::pair<std::string, std::string>> members;
    EXPECT_TRUE(reader.readObject([&](std::string_view key) {
        std::string name(key);
        members.emplace_back(std::move(name), reader.rawValue());
    }));
    reader.readEnd();
    EXPECT_EQ(members, (decltype(members){{"a", "[1, {}]"}, {"b", "\"x\""}, {"a", "2"}}));
}

TEST(JSONReader, KeysAndStringsStayWhenTheirPieceIsGone) {
    const std::string text = R"({"ab" : "cd" , "e\u0066" : "g\nh" , "\u0069j" : "kl" , "m" : "\tn" })";
    using Members = std::vector<std::pair<std::string, std::string>>;
    const Members expected = {{"ab", "cd"}, {"ef", "g\nh"}, {"ij", "kl"}, {"m", "\tn"}};
    for (std::size_t size = 1; size <= text.size(); ++size) {
        test::Pieces pieces(text, size);
        JSONReader reader(pieces);
        Members members;
        reader.readObject([&](std::string_view key) {
            std::string name(key);
            std::string place = "what stood there before";
            const std::string_view value = reader.readString(place).value();
            reader.next();  // may get another piece
            members.emplace_back(std::move(name), value);
        });
        EXPECT_EQ(members, expected) << size;
    }
}

TEST(JSONReader, AStringThatStandsInTheTextIsNotCopied) {
    const std::string text = R"("abc")";
    std::string place = "untouched";
    EXPECT_EQ(JSONReader(text).readString(place).value().data(), text.data() + 1);
    EXPECT_EQ(place, "untouched");
}

TEST(JSONReader, WhatIsNoObjectIsLeftUnread) {
    JSONReader reader("[{}]");
    EXPECT_FALSE(reader.readObject([](std::string_view) { FAIL(); }));
    EXPECT_EQ(reader.rawValue(), "[{}]");
}

TEST(JSONReader, AStringIsReadDecodedAndAnythingElseIsPassedOver) {
    const auto read = [](std::string_view text) {
        JSONReader reader(text);
        const auto string = reader.readString();
        reader.readEnd();
        return string;
    };
    EXPECT_EQ(read(R"("a\u00e9\n")"), "aé\n");
    EXPECT_EQ(read(R"("")"), "");
    for (const char* const text : {"1", "null", "[\"a\"]", "{}"}) EXPECT_EQ(read(text), std::nullopt);
}

TEST(JSONReader, IntegersBeyond64BitsAreRoundedCorrectly) {
    EXPECT_EQ(JSONValue::decode("9223372036854775809").real(), 9223372036854775808.0);
    EXPECT_EQ(JSONValue::decode("-9223372036854775809").real(), -9223372036854775808.0);
    EXPECT_EQ(JSONValue::decode("36893488147419103233").real(), 36893488147419103232.0);
}

}  // namespace
}  // namespace tidewell
