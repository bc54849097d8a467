#include "Judge.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tidewell::test {

namespace {

/// The whole number within 64 bits that a number token stands for. Done on the digits alone, without arithmetic.
std::optional<std::int64_t> wholeNumber(std::string_view token) {
    const bool isNegative = token.starts_with('-');
    if (isNegative) token.remove_prefix(1);
    const std::size_t letter = std::min(token.find_first_of("eE"), token.size());
    const std::string_view mantissa = token.substr(0, letter);
    const std::size_t mark = std::min(mantissa.find('.'), mantissa.size());
    std::string digits(mantissa.substr(0, mark));
    if (mark < mantissa.size()) digits += mantissa.substr(mark + 1);

    // Beyond this the exponent alone decides; clamping it here keeps sums far from overflow.
    constexpr long farAway = 1'000'000;
    const std::string exponent(token.substr(std::min(letter + 1, token.size())));
    long point =
        static_cast<long>(mark) + std::clamp(std::strtol(exponent.c_str(), nullptr, 10), -farAway, farAway);

    const std::size_t leading = std::min(digits.find_first_not_of('0'), digits.size());
    digits.erase(0, leading);
    point -= static_cast<long>(leading);
    digits.erase(digits.find_last_not_of('0') + 1);
    if (digits.empty()) return 0;

    const auto length = static_cast<long>(digits.size());
    constexpr long mostDigits = 19;
    if (point < length || point > mostDigits) return std::nullopt;
    digits.append(static_cast<std::size_t>(point - length), '0');
    if (point == mostDigits && digits > (isNegative ? "9223372036854775808" : "9223372036854775807"))
        return std::nullopt;
    return std::stoll((isNegative ? "-" : "") + digits);
}

/// Builds values from what the library reads, and stops reading where a promise is broken.
class Judge : public nlohmann::json_sax<nlohmann::json> {
public:
    using json = nlohmann::json;

    explicit Judge(Text origin) : isWritten_(origin == Text::written) {}
    json take() { return std::move(open_.front().value.front()); }

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(value); }
    bool number_unsigned(number_unsigned_t value) override {
        return value <= INT64_MAX ? add(static_cast<std::int64_t>(value)) : add(static_cast<double>(value));
    }
    bool number_float(number_float_t value, const string_t& token) override {
        constexpr double twoToThe63 = 9223372036854775808.0;
        std::optional<std::int64_t> whole = wholeNumber(token);
        if (!whole && value == std::trunc(value) && value >= -twoToThe63 && value < twoToThe63)
            whole = static_cast<std::int64_t>(value);
        if (!whole) return add(value);
        return !isWritten_ && add(*whole);
    }
    bool string(string_t& value) override { return add(value); }
    bool binary(binary_t&) override { return false; }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool start_object(std::size_t) override { return open(json::object()); }
    bool key(string_t& key) override {
        open_.back().key = key;
        return !isWritten_ || !open_.back().value.contains(key);
    }
    bool end_array() override { return close(); }
    bool end_object() override { return close(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    struct Container {
        json value;
        std::string key = {};  // of the member that comes next
    };

    bool open(json container) {
        constexpr std::size_t deepestNesting = 512;
        open_.push_back({std::move(container)});
        return open_.size() <= 1 + deepestNesting;
    }
    bool close() {
        json container = std::move(open_.back().value);
        open_.pop_back();
        return add(std::move(container));
    }
    bool add(json value) {
        Container& parent = open_.back();
        if (parent.value.is_object()) {
            parent.value[parent.key] = std::move(value);
        } else {
            parent.value.push_back(std::move(value));
        }
        return true;
    }

    bool isWritten_;
    std::vector<Container> open_ = {{json::array()}};  // the first holds the value itself
};

}  // namespace

std::optional<nlohmann::json> judge(std::string_view text, Text origin) {
    // The library takes a NUL for the end of its input, and skips a byte-order mark.
    if (text.find('\0') != std::string_view::npos || text.starts_with("\xEF\xBB\xBF")) return std::nullopt;
    Judge judge(origin);
    if (!nlohmann::json::sax_parse(text, &judge)) return std::nullopt;
    return judge.take();
}

nlohmann::json judgeWritten(std::string_view text) {
    std::optional<nlohmann::json> value = judge(text, Text::written);
    if (!value) {
        throw std::runtime_error("not JSON, a member twice, or an integer as a fraction: " +
                                 std::string(text.substr(0, 500)));
    }
    return std::move(*value);
}

nlohmann::json withBooleans(nlohmann::json value) {
    if (value.is_number() && (value == 0 || value == 1)) return value == 1;
    if (value.is_structured()) {
        for (nlohmann::json& element : value) element = withBooleans(std::move(element));
    }
    return value;
}

nlohmann::json opened(nlohmann::json reply) {
    using json = nlohmann::json;
    for (const char* const list : {"content", "contents"}) {
        const json::json_pointer place("/result/" + std::string(list) + "/0/text");
        if (!reply.contains(place)) continue;
        json& text = reply[place];
        text = judge(text.is_string() ? text.get<std::string>() : "", Text::written)
                   .value_or(json(json::value_t::discarded));
    }
    return reply;
}

}  // namespace tidewell::test
