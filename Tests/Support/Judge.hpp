// Judge.hpp: what a text says, read by an independent JSON library, in the terms of the promises in JSONReader.hpp.
//
// A judged number is an integer exactly when it is whole and within 64 bits, however it was written. So the library's
// == is exact between judged values, although it treats 3 and 3.0 as equal.
#pragma once

#include <nlohmann/json.hpp>

#include <optional>
#include <string_view>

namespace tidewell::test {

/// Where a text comes from. What the program writes repeats no member and writes integers as integers.
enum class Text { received, written };

/// What `text` says, or nothing if it must be refused.
std::optional<nlohmann::json> judge(std::string_view text, Text origin = Text::received);

/// What a text written by the program says; throws if the program must not write it like that.
nlohmann::json judgeWritten(std::string_view text);

/// The same with booleans in place of all numbers equal to 1 and 0: what becomes of a client's numbers.
nlohmann::json withBooleans(nlohmann::json value);

/// A reply in which the text of a tool result or resource, itself JSON from the program, is replaced by what it says,
/// so that the order of its members does not matter; text that is not such JSON becomes a value that equals no other.
nlohmann::json opened(nlohmann::json reply);

}  // namespace tidewell::test
