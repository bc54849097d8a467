// PropertyList.hpp: one string out of a property list, the file format of a bundle's Info.plist.
//
// A property list comes in three forms, binary, XML and an older text form; the file itself shows which it
// is. No tree is built: a form's reader walks the whole file and remembers the one value asked for. What
// other values hold is not checked.
//
// Units     bytes in, UTF-8 out; time and memory grow linearly with the file.
// Errors    not distinguished: any failure returns nothing.
// Threads   pure, no state: callable from several threads at once.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tidewell {

/// How many dictionaries and arrays may stand inside one another, the top-level dictionary included.
inline constexpr int propertyListNestingLimit = 512;

/// The string stored under `key` in the top-level dictionary of a property list, as UTF-8; nothing when
/// `file` is not a property list, its top level is no dictionary, the key is missing or its value no string.
/// Of several equal keys the last one counts. The string may be empty.
std::optional<std::string> stringInPropertyList(std::string_view file, std::string_view key);

}  // namespace tidewell
