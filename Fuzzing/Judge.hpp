// Judge.hpp: an independent JSON library's opinion, in the terms of the promises that JSONReader.hpp makes.
#pragma once

#include "JSON/JSONValue.hpp"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::fuzzing {

using nlohmann::json;

/// What `text` says, or nothing when it has to be refused. Where the library is laxer than our reader
/// promises to be, this says what was promised: it takes a NUL for the end of its input, skips a byte-order
/// mark, knows no limit of nesting, and holds whole numbers up to 2^64.
std::optional<json> judge(std::string_view text);

/// Whether our value is what the judge read. A double cannot tell 2^63 from its whole neighbours within 64
/// bits, so just there an int and a double are both right.
bool agrees(const JSONValue& ours, const json& judged);

/// The same with booleans in place of all numbers equal to 1 and 0: what becomes of a client's numbers.
json withBooleans(json judged);

/// The whole number within 64 bits that a number token stands for, in plain decimal; nothing for any other.
/// Done on the digits alone, without arithmetic.
std::optional<std::string> wholeNumber(std::string_view token);

/// Every number in `text`, which the judge accepted, that it could only hold as a double.
std::vector<std::string> inexactTokens(std::string_view text);

/// Replaces the "text" of a tool result's or resource's item, a string that is itself JSON, by what it says,
/// so that the order of its members does not matter. False when it is no such text.
bool unpackText(json& item);

}  // namespace tidewell::fuzzing
