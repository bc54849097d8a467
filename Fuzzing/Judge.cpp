#include "Judge.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace tidewell::fuzzing {

namespace {

constexpr std::size_t deepestNesting = 512;
constexpr double twoToThe63 = 9223372036854775808.0;

/// How many containers stand inside one another in valid JSON.
std::size_t depthOf(std::string_view text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool inString = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char byte = text[at];
        if (inString && byte == '\\') {
            ++at;
        } else if (byte == '"') {
            inString = !inString;
        } else if (!inString && (byte == '[' || byte == '{')) {
            deepest = std::max(deepest, ++depth);
        } else if (!inString && (byte == ']' || byte == '}')) {
            --depth;
        }
    }
    return deepest;
}

/// Listens for the numbers alone.
struct NumberCollector : nlohmann::json_sax<json> {
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t& token) override {
        tokens.push_back(token);
        return true;
    }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return true; }
    bool key(string_t&) override { return true; }
    bool end_object() override { return true; }
    bool start_array(std::size_t) override { return true; }
    bool end_array() override { return true; }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

    std::vector<std::string> tokens;
};

bool agreesOnDouble(const JSONValue& ours, double judged) {
    const auto integer = ours.integer();
    const bool isSame = integer ? static_cast<double>(*integer) == judged : ours.real() == judged;
    const bool isAtTheEdge = std::abs(judged) == twoToThe63;
    const bool isWhole = judged == std::trunc(judged) && std::abs(judged) < twoToThe63;
    return isSame && (isAtTheEdge || isWhole == integer.has_value());
}

/// Whole numbers above 2^63 as doubles: the library holds them exactly, the reader promises no more.
json withinSigned64Bits(json judged) {
    if (judged.is_number_unsigned() && judged.get<std::uint64_t>() > INT64_MAX) return judged.get<double>();
    if (!judged.is_structured()) return judged;
    for (auto& element : judged) element = withinSigned64Bits(std::move(element));
    return judged;
}

}  // namespace

std::optional<json> judge(std::string_view text) {
    if (text.find('\0') != std::string_view::npos || text.starts_with("\xEF\xBB\xBF")) return std::nullopt;
    json judged = json::parse(text, nullptr, false);
    if (judged.is_discarded() || depthOf(text) > deepestNesting) return std::nullopt;
    return withinSigned64Bits(std::move(judged));
}

bool agrees(const JSONValue& ours, const json& judged) {
    switch (judged.type()) {
    case json::value_t::null: return ours.isNull();
    case json::value_t::boolean: return ours.boolean() == judged.get<bool>();
    case json::value_t::number_integer:
    case json::value_t::number_unsigned: return ours.integer() == judged.get<std::int64_t>();
    case json::value_t::number_float: return agreesOnDouble(ours, judged.get<double>());
    case json::value_t::string: return ours.string() == judged.get_ref<const std::string&>();
    case json::value_t::array:
        return ours.kind() == JSONValue::Kind::array && std::ranges::equal(ours.elements(), judged, agrees);
    case json::value_t::object: {
        if (ours.kind() != JSONValue::Kind::object || ours.members().size() != judged.size()) return false;
        return std::ranges::all_of(ours.members(), [&](const JSONValue::Member& member) {
            const auto other = judged.find(member.key);
            return other != judged.end() && agrees(member.value, *other);
        });
    }
    default: return false;
    }
}

json withBooleans(json judged) {
    if (judged.is_number()) {
        const auto value = judged.get<double>();
        return value == 0 || value == 1 ? json(value == 1) : judged;
    }
    if (!judged.is_structured()) return judged;
    for (auto& element : judged) element = withBooleans(std::move(element));
    return judged;
}

std::optional<std::string> wholeNumber(std::string_view token) {
    const bool isNegative = token.starts_with('-');
    if (isNegative) token.remove_prefix(1);
    const std::size_t letter = std::min(token.find_first_of("eE"), token.size());
    const std::string_view mantissa = token.substr(0, letter);
    const std::size_t mark = std::min(mantissa.find('.'), mantissa.size());
    std::string digits(mantissa.substr(0, mark));
    if (mark < mantissa.size()) digits += mantissa.substr(mark + 1);

    // Beyond this an exponent decides alone, and sums with it stay far from overflow.
    constexpr long farAway = 1'000'000;
    const std::string exponent(token.substr(std::min(letter + 1, token.size())));
    long point =
        static_cast<long>(mark) + std::clamp(std::strtol(exponent.c_str(), nullptr, 10), -farAway, farAway);

    const std::size_t leading = std::min(digits.find_first_not_of('0'), digits.size());
    digits.erase(0, leading);
    point -= static_cast<long>(leading);
    digits.erase(digits.find_last_not_of('0') + 1);
    if (digits.empty()) return "0";

    const auto length = static_cast<long>(digits.size());
    constexpr long mostDigits = 19;
    if (point < length || point > mostDigits) return std::nullopt;
    digits.append(static_cast<std::size_t>(point - length), '0');
    if (point == mostDigits && digits > (isNegative ? "9223372036854775808" : "9223372036854775807"))
        return std::nullopt;
    return (isNegative ? "-" : "") + digits;
}

std::vector<std::string> inexactTokens(std::string_view text) {
    NumberCollector collector;
    json::sax_parse(text, &collector);
    return std::move(collector.tokens);
}

bool unpackText(json& item) {
    if (!item.is_object() || !item.contains("text") || !item["text"].is_string()) return false;
    std::optional<json> said = judge(item["text"].get_ref<const std::string&>());
    if (!said) return false;
    item["text"] = std::move(*said);
    return true;
}

}  // namespace tidewell::fuzzing
