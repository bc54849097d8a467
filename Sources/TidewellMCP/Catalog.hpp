// Catalog.hpp: everything that the server publishes about itself. Fixed tables, built on first use under a
// once-only guard and read-only afterwards, so that any thread may read them.
#pragma once

#include "JSONValue.hpp"

#include <string_view>

namespace tidewell {

/// A namespace: no instances.
class Catalog {
public:
    Catalog() = delete;

    /// The 60 tools as "tools/list" publishes them, in an order that is part of the interface.
    static const JSONValue& tools();
    /// The nine resources of "resources/list", in order.
    static const JSONValue& resources();
    /// The six prompts of "prompts/list", in order.
    static const JSONValue& prompts();
    /// The "prompts/get" result for a prompt: one user message. Total: an unknown name gets the generic text.
    static JSONValue promptMessages(std::string_view name);
};

}  // namespace tidewell
