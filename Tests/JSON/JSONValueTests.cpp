#include "JSON/JSONReader.hpp"
#include "JSON/JSONValue.hpp"
#include "JSON/JSONWriter.hpp"

#include "Support/TestNames.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace tidewell {
namespace {

using Kind = JSONValue::Kind;

/// What the host app reads from a client's arguments.
JSONValue fromText(std::string_view text) {
    ByteBuffer rewritten;
    rewriteJSON(text, NumberRule::oneAndZeroAreBooleans, rewritten);
    return JSONValue::decode(rewritten.view());
}

TEST(JSONValueFromAny, TheNullMarkerBecomesNull) { EXPECT_TRUE(fromText("null").isNull()); }

TEST(JSONValueFromAny, AnEmptyDictionaryBecomesAnEmptyObject) {
    const JSONValue value = fromText("{}");
    EXPECT_EQ(value.kind(), Kind::object);
    EXPECT_TRUE(value.members().empty());
}

TEST(JSONValueFromAny, AnEmptyArrayBecomesAnEmptyArray) {
    const JSONValue value = fromText("[]");
    EXPECT_EQ(value.kind(), Kind::array);
    EXPECT_TRUE(value.elements().empty());
}

TEST(JSONValueFromAny, AMixedTreeIsConvertedMemberByMember) {
    const JSONValue expected = JSONValue::object({
        {"a", true},
        {"b", 2},
        {"c", 1.5},
        {"d", true},
        {"e", JSONValue::array({false, "x", nullptr})},
    });
    EXPECT_EQ(fromText(R"({"a":1,"b":2,"c":1.5,"d":true,"e":[0,"x",null]})"), expected);
}

struct NumberCase {
    const char* name;
    const char* text;
    JSONValue converted;
    JSONValue decoded;
};

class NumberTest : public testing::TestWithParam<NumberCase> {};

TEST_P(NumberTest, IsConvertedAndDecodedByItsRule) {
    ByteBuffer rewritten;
    rewriteJSON(GetParam().text, NumberRule::oneAndZeroAreBooleans, rewritten);
    EXPECT_EQ(rewritten.view(), GetParam().converted.jsonString());
    EXPECT_EQ(JSONValue::decode(GetParam().text), GetParam().decoded);
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, NumberTest,
    testing::Values(NumberCase{"OneIsABooleanInParamsOnly", "1", true, 1},
                    NumberCase{"ZeroIsABooleanInParamsOnly", "0", false, 0},
                    NumberCase{"OneWrittenAsAFractionToo", "1.0", true, 1},
                    NumberCase{"ZeroWrittenAsAFractionToo", "0.0", false, 0},
                    NumberCase{"OneWrittenWithAnExponentToo", "10e-1", true, 1},
                    NumberCase{"MinusZeroEqualsZero", "-0", false, 0},
                    NumberCase{"MinusOneIsAnInteger", "-1", -1, -1}, NumberCase{"TwoIsAnInteger", "2", 2, 2},
                    NumberCase{"AWholeFractionIsAnInteger", "2.0", 2, 2},
                    NumberCase{"AWholeExponentIsAnInteger", "3e2", 300, 300},
                    NumberCase{"ALargeWholeFractionIsExact", "9223372036854775807.0", INT64_MAX, INT64_MAX},
                    NumberCase{"ALargeWholeExponentIsExact", "-922337203685477580.80e1", INT64_MIN,
                               INT64_MIN},
                    NumberCase{"AWholeNumberPastADoublesPrecision", "9007199254740993.000", 9007199254740993,
                               9007199254740993},
                    NumberCase{"ManyZerosAreStillOneDigit", "1000000000000000000", 1000000000000000000,
                               1000000000000000000},
                    NumberCase{"AHugeExponentOverZeroIsZero", "0e99999", false, 0},
                    NumberCase{"OneBelowTheSmallestIntegerIsADouble", "-9223372036854775809",
                               -9223372036854775808.0, -9223372036854775808.0},
                    NumberCase{"TenToTheNineteenIsADouble", "1e19", 1e19, 1e19},
                    NumberCase{"AFractionIsADouble", "1.5", 1.5, 1.5},
                    NumberCase{"TheLargestInteger", "9223372036854775807", INT64_MAX, INT64_MAX},
                    NumberCase{"TheSmallestInteger", "-9223372036854775808", INT64_MIN, INT64_MIN},
                    NumberCase{"OneBeyondTheLargestIntegerIsADouble", "9223372036854775808",
                               9223372036854775808.0, 9223372036854775808.0},
                    NumberCase{"TooLargeFor64BitsIsADouble", "123456789012345678901234567890",
                               1.2345678901234568e29, 1.2345678901234568e29}),
    test::nameOf);

TEST(JSONValueDecoding, OneAndZeroStayNumbers) {
    const JSONValue value = JSONValue::decode(R"({"a":1})");
    ASSERT_NE(value.find("a"), nullptr);
    EXPECT_EQ(*value.find("a"), JSONValue(1));
}

TEST(JSONValueDecoding, ANumberTooLargeFor64BitsIsADouble) {
    EXPECT_EQ(JSONValue::decode("18446744073709551616").kind(), Kind::real);
}

TEST(JSONValueDecoding, ATextThatIsNoJSONThrowsTheReadersError) {
    EXPECT_THROW(JSONValue::decode("not json"), JSONError);
}

TEST(JSONString, SlashesAreNotEscaped) { EXPECT_EQ(JSONValue("a/b").jsonString(), R"("a/b")"); }

TEST(JSONString, ANaNAnywhereMakesTheWholeTextNull) {
    const JSONValue value = JSONValue::object({{"a", 1}, {"b", JSONValue::array({std::nan("")})}});
    EXPECT_EQ(value.jsonString(), "null");
    EXPECT_EQ(JSONValue(std::numeric_limits<double>::infinity()).jsonString(), "null");
}

TEST(JSONString, TextThatIsNotUTF8MakesTheWholeTextNull) {
    EXPECT_EQ(JSONValue::array({"good", "bad \xFF"}).jsonString(), "null");
    EXPECT_EQ(JSONValue::object({{"\xC3", 1}}).jsonString(), "null");
    EXPECT_EQ(JSONValue("\xED\xA0\x80").jsonString(), "null") << "a surrogate in UTF-8";
    for (int byte = 0x80; byte <= 0xFF; ++byte)
        EXPECT_EQ(JSONValue(std::string(1, static_cast<char>(byte))).jsonString(), "null") << byte;
}

TEST(JSONString, IsCompactAndKeepsTheOrderOfArrays) {
    const JSONValue value = JSONValue::array({nullptr, true, false, -7, "x", JSONValue::object({{"k", 2}})});
    EXPECT_EQ(value.jsonString(), R"([null,true,false,-7,"x",{"k":2}])");
}

TEST(JSONString, EmptyContainersAreWritten) {
    EXPECT_EQ(JSONValue::array({}).jsonString(), "[]");
    EXPECT_EQ(JSONValue::object({}).jsonString(), "{}");
}

TEST(JSONString, QuotesBackslashesAndControlCharactersAreEscaped) {
    EXPECT_EQ(JSONValue("\"\\\b\f\n\r\t\x01\x1F").jsonString(), R"("\"\\\b\f\n\r\t\u0001\u001f")");
    EXPECT_EQ(JSONValue(std::string_view("a\0b", 3)).jsonString(), R"("a\u0000b")");
}

TEST(JSONString, OtherCharactersAreWrittenAsRawUTF8) {
    EXPECT_EQ(JSONValue("local↔remote — é 𝄞 \x7F").jsonString(), "\"local↔remote — é 𝄞 \x7F\"");
}

TEST(JSONString, DoublesAreWrittenInTheirShortestRoundTripForm) {
    EXPECT_EQ(JSONValue(2.0).jsonString(), "2");
    EXPECT_EQ(JSONValue(-300.0).jsonString(), "-300");
    EXPECT_EQ(JSONValue(0.1).jsonString(), "0.1");
    EXPECT_EQ(JSONValue(5e-324).jsonString(), "5e-324");
    EXPECT_EQ(JSONValue(1.7976931348623157e308).jsonString(), "1.7976931348623157e+308");
}

TEST(JSONString, IntegersAreWrittenInDecimal) {
    EXPECT_EQ(JSONValue(INT64_MIN).jsonString(), "-9223372036854775808");
    EXPECT_EQ(JSONValue(INT64_MAX).jsonString(), "9223372036854775807");
}

TEST(JSONString, StringsOfEveryLengthAroundTheWordSizeSurvive) {
    for (std::size_t length = 0; length < 40; ++length) {
        for (const char special : {'x', '"', '\\', '\n'}) {
            for (std::size_t place = 0; place < length; ++place) {
                std::string text(length, 'a');
                text[place] = special;
                EXPECT_EQ(JSONValue::decode(JSONValue(text).jsonString()), JSONValue(text));
            }
        }
    }
}

TEST(JSONString, TextFromJSONIsWrittenAsItCame) {
    // A string read without escapes needs none when written; the others need theirs again.
    for (const std::string text :
         {R"("")", R"("é")", R"("short")", R"("é longer than a value holds in itself — ✓")", R"("a\"b")",
          R"("a backslash \\ in a long string")", R"("tab\tand line feed\n")", R"("\u0001")"}) {
        EXPECT_EQ(JSONValue::decode(text).jsonString(), text);
    }
    EXPECT_EQ(JSONValue::decode(R"("\u00e9\/\u0041")").jsonString(), R"("é/A")");
}

TEST(JSONValueEquality, CasesAreNeverMixed) {
    EXPECT_FALSE(JSONValue(1) == JSONValue(1.0));
    EXPECT_FALSE(JSONValue(1) == JSONValue(true));
    EXPECT_FALSE(JSONValue(0) == JSONValue(nullptr));
    EXPECT_FALSE(JSONValue("") == JSONValue(nullptr));
    EXPECT_FALSE(JSONValue::array({}) == JSONValue::object({}));
}

TEST(JSONValueEquality, ObjectsAreEqualWhateverTheirInsertionOrder) {
    EXPECT_EQ(JSONValue::object({{"a", 1}, {"b", 2}, {"c", 3}}),
              JSONValue::object({{"c", 3}, {"a", 1}, {"b", 2}}));
    EXPECT_FALSE(JSONValue::object({{"a", 1}}) == JSONValue::object({{"b", 1}}));
    EXPECT_FALSE(JSONValue::object({{"a", 1}}) == JSONValue::object({{"a", 2}}));
    EXPECT_FALSE(JSONValue::object({{"a", 1}}) == JSONValue::object({{"a", 1}, {"b", 2}}));
}

TEST(JSONValueEquality, ArraysAreComparedInOrderAndLength) {
    EXPECT_EQ(JSONValue::array({1, 2}), JSONValue::array({1, 2}));
    EXPECT_FALSE(JSONValue::array({1, 2}) == JSONValue::array({2, 1}));
    EXPECT_FALSE(JSONValue::array({1}) == JSONValue::array({1, 2}));
}

TEST(JSONValueEquality, DoublesCompareAsFloatingPointNumbers) {
    EXPECT_FALSE(JSONValue(std::nan("")) == JSONValue(std::nan("")));
    EXPECT_EQ(JSONValue(0.0), JSONValue(-0.0));
}

TEST(JSONValueEquality, LongAndShortStringsCompareByContent) {
    const std::string fourteen(14, 'x');
    const std::string fifteen(15, 'x');
    EXPECT_EQ(JSONValue(fourteen), JSONValue(fourteen));
    EXPECT_EQ(JSONValue(fifteen), JSONValue(fifteen));
    EXPECT_FALSE(JSONValue(fourteen) == JSONValue(fifteen));
    EXPECT_FALSE(JSONValue(std::string_view("a\0", 2)) == JSONValue("a"));
}

TEST(JSONValueViews, AWrongTypeIsNothingAndNeverConverted) {
    const JSONValue one(1);
    EXPECT_EQ(one.integer(), 1);
    EXPECT_EQ(one.boolean(), std::nullopt);
    EXPECT_EQ(one.real(), std::nullopt);
    EXPECT_EQ(one.string(), std::nullopt);
    EXPECT_TRUE(one.elements().empty());
    EXPECT_TRUE(one.members().empty());
    EXPECT_EQ(one.find("a"), nullptr);
}

TEST(JSONValueObjects, TheLastOfEqualKeysWins) {
    EXPECT_EQ(JSONValue::object({{"a", 1}, {"b", 2}, {"a", 3}}), JSONValue::object({{"b", 2}, {"a", 3}}));
}

TEST(JSONValueObjects, TheLastOfEqualKeysWinsAmongManyToo) {
    for (const std::size_t distinct : {1U, 15U, 16U, 17U, 1000U}) {
        std::vector<JSONValue::Member> members;
        for (std::size_t at = 0; at < 2000; ++at)
            members.push_back(
                {"a key number " + std::to_string(at % distinct), static_cast<std::int64_t>(at)});
        const JSONValue object = JSONValue::object(std::move(members));
        ASSERT_EQ(object.members().size(), distinct);
        for (std::size_t key = 0; key < distinct; ++key) {
            const JSONValue* const value = object.find("a key number " + std::to_string(key));
            ASSERT_NE(value, nullptr);
            EXPECT_EQ(value->integer(), static_cast<std::int64_t>(2000 - 1 - (1999 - key) % distinct));
        }
    }
}

TEST(JSONValueCopies, AreIndependent) {
    JSONValue first = JSONValue::array({"a string beyond fourteen bytes", JSONValue::object({{"k", 1}})});
    JSONValue second = first;
    first = nullptr;
    EXPECT_EQ(second.jsonString(), R"(["a string beyond fourteen bytes",{"k":1}])");
    const JSONValue& same = second;
    second = same;
    EXPECT_EQ(second.elements().size(), 2U);
}

}  // namespace
}  // namespace tidewell
