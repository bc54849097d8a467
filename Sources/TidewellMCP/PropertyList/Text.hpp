// Text.hpp: the old text form of a property list; Text.cpp begins with its grammar.

#pragma once

#include "PropertyList/PropertyList.hpp"

namespace tidewell::propertylist {

/// As stringInPropertyList(), for any other UTF-8 without a byte-order mark.
std::optional<std::string> stringInText(std::string_view text, std::string_view key);

}  // namespace tidewell::propertylist
