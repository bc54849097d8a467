// Binary.hpp: the binary form of a property list; Binary.cpp begins with its grammar.

#pragma once

#include "PropertyList/PropertyList.hpp"

namespace tidewell::propertylist {

/// As stringInPropertyList(), for a file that begins with "bplist0" and a digit.
std::optional<std::string> stringInBinary(std::string_view file, std::string_view key);

}  // namespace tidewell::propertylist
