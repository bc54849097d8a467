// ExactJSON.hpp: compares JSON as it is written. A JSON library treats 3 and 3.0 as equal and keeps
// one of two members with the same key; the text below differs in both cases. The order of members, blanks and
// escapes mean nothing here either.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tidewell::test {

/// Equal for two texts exactly when they say the same in the same way. Throws when `text` is not JSON.
std::string exact(std::string_view text);

/// The same, line by line.
std::vector<std::string> exactLines(std::string_view lines);

}  // namespace tidewell::test
