// JSONNumber.hpp: what a number token of RFC 8259 stands for.
//
// A whole number within 64 bits is an integer, exact however it was written (2.0, 3e2); everything else is the
// nearest double.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <variant>

namespace tidewell {

using JSONNumber = std::variant<std::int64_t, double>;

/// A number as it stands in the text, its grammar already checked.
struct NumberToken {
    std::string_view text;
    bool hasPoint = false;
    bool hasExponent = false;
};

/// The value of a token; infinite when it is beyond the range of a double.
JSONNumber valueOf(const NumberToken& token);

/// The value of a token cut toward zero, without rounding on the way; nothing when that does not fit 64 bits.
std::optional<std::int64_t> integerPart(std::string_view token) noexcept;

}  // namespace tidewell
