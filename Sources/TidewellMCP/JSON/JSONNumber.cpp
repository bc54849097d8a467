#include "JSON/JSONNumber.hpp"

#include "Base/Platform.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

namespace tidewell {

namespace {

constexpr bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

/// A decimal number cut at its point.
struct Decimal {
    std::optional<std::int64_t> integer;  // nothing when it does not fit
    bool isWhole = true;                  // only zeros after the point
};

/// The exponent in `text`, which follows the mark. Capped: a larger one would change nothing, and sums with
/// it cannot overflow.
std::int64_t exponentIn(std::string_view text) noexcept {
    constexpr std::int64_t cap = 1'000'000'000'000'000;
    std::int64_t exponent = 0;
    for (const char byte : text) {
        if (isDigit(byte)) exponent = std::min(exponent * 10 + (byte - '0'), cap);
    }
    return text.front() == '-' ? -exponent : exponent;
}

/// The digits that stand before the point once the exponent has moved it, as one number.
Decimal decimalOf(std::string_view text) noexcept {
    const bool isNegative = text.front() == '-';
    const auto isMark = [](char byte) { return byte == 'e' || byte == 'E'; };
    const char* const first = text.data() + (isNegative ? 1 : 0);
    const char* const end = text.data() + text.size();
    const char* const mark = std::find_if(first, end, isMark);
    const char* const point = std::find(first, mark, '.');
    std::int64_t left = point - first + (mark == end ? 0 : exponentIn({mark + 1, end}));

    constexpr std::uint64_t most = static_cast<std::uint64_t>(INT64_MAX) + 1;  // the magnitude of -2^63
    std::uint64_t magnitude = 0;
    Decimal decimal;
    const auto append = [&](std::uint64_t digit) {
        if (magnitude > (most - digit) / 10) return false;
        magnitude = magnitude * 10 + digit;
        return true;
    };
    for (const char* at = first; at != mark; ++at) {
        if (at == point) continue;
        if (left-- <= 0) {
            decimal.isWhole = *at == '0';
            if (!decimal.isWhole) break;
        } else if (!append(static_cast<std::uint64_t>(*at - '0'))) {
            return decimal;
        }
    }
    for (; left > 0 && magnitude > 0; --left) {
        if (!append(0)) return decimal;
    }
    if (magnitude == most && !isNegative) return decimal;
    decimal.integer = static_cast<std::int64_t>(isNegative ? 0 - magnitude : magnitude);
    return decimal;
}

/// Both ways round correctly. The C library's decimal point is '.', because this program never sets a locale.
double nearestDouble(std::string_view text) {
    const std::optional<double> value = Platform::parseDouble(text);
    return value ? *value : std::strtod(std::string(text).c_str(), nullptr);
}

}  // namespace

JSONNumber valueOf(const NumberToken& token) {
    // A fraction that does not end in 0 is not whole, and needs no closer look.
    if (token.hasExponent || !token.hasPoint || token.text.back() == '0') {
        const Decimal decimal = decimalOf(token.text);
        if (decimal.integer && decimal.isWhole) return *decimal.integer;
    }
    const double value = nearestDouble(token.text);
    // 2.00000000000000000001 rounds to a whole number. At 2^63 and beyond none fits; -2^63 itself would, but
    // there a double stands for a thousand integers, most of which do not.
    constexpr double limit = 9223372036854775808.0;
    if (value > -limit && value < limit && value == std::trunc(value))
        return static_cast<std::int64_t>(value);
    return value;
}

std::optional<std::int64_t> integerPart(std::string_view token) noexcept { return decimalOf(token).integer; }

}  // namespace tidewell
