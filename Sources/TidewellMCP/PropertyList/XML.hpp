// XML.hpp: the XML form of a property list; XML.cpp begins with its grammar.

#pragma once

#include "PropertyList/PropertyList.hpp"

namespace tidewell::propertylist {

/// As stringInPropertyList(), for UTF-8 without a byte-order mark that begins with "<", perhaps after white
/// space.
std::optional<std::string> stringInXML(std::string_view text, std::string_view key);

}  // namespace tidewell::propertylist
