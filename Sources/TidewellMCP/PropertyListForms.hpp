// PropertyListForms.hpp: the readers of the three forms and what they share. For PropertyList*.cpp alone;
// everybody else includes PropertyList.hpp.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell::propertylist {

/// How many dictionaries and arrays may stand inside one another, the top-level dictionary included.
inline constexpr std::size_t nestingLimit = 512;

// Each reader takes a whole file and gives what stringInPropertyList promises, but for one thing: an unpaired
// UTF-16 surrogate comes out as the three bytes that UTF-8 forbids, and the caller refuses such a result. So
// a stray surrogate in a value that nobody asked for does not make the file unreadable.

/// A file that begins with "bplist0" and a digit.
std::optional<std::string> stringInBinaryForm(std::string_view file, std::string_view key);
/// A file that begins with "<", perhaps after white space; valid UTF-8 without a byte-order mark.
std::optional<std::string> stringInXMLForm(std::string_view text, std::string_view key);
/// Any other file; valid UTF-8 without a byte-order mark.
std::optional<std::string> stringInTextForm(std::string_view text, std::string_view key);

/// True for well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUTF8(std::string_view bytes);

/// Appends one UTF-16 unit as UTF-8: a low surrogate is joined with the high one it follows, a lone one
/// becomes the three bytes described above.
void appendUnit(std::string& out, char16_t unit);

}  // namespace tidewell::propertylist
