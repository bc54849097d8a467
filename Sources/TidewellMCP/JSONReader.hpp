// JSONReader.hpp: JSON text to values, in one pass over the bytes and without recursion.
//
// Accepts    RFC 8259, strictly: one value of any kind, blanks (space, tab, line feed, carriage return)
//            around it, nothing else.
// Refuses    invalid UTF-8 anywhere, a byte-order mark, control characters inside strings, unpaired surrogate
//            escapes, a number beyond the range of a double (1e400), nesting deeper than `maximumNesting`.
// Numbers    a whole number within 64 bits is an int, exact however it was written (2.0, 3e2); everything
//            else is the nearest double.
#pragma once

#include "JSONValue.hpp"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell {

/// How many arrays and objects may stand inside one another.
inline constexpr std::size_t maximumNesting = 512;

/// Why a text is not JSON. The description is stable: "invalid JSON at byte 3: expected a value".
class JSONError : public std::exception {
public:
    JSONError(const char* reason, std::size_t offset);
    const char* what() const noexcept override { return description_.c_str(); }
    std::size_t offset() const noexcept { return offset_; }  ///< in bytes, from the start of the text

private:
    std::string description_;
    std::size_t offset_;
};

/// Reads `text` as one JSON value. Throws JSONError. Pure.
JSONValue readJSON(std::string_view text);

/// The integer that equals `value`, when it is whole and surely within 64 bits.
std::optional<std::int64_t> exactInteger(double value) noexcept;

}  // namespace tidewell
