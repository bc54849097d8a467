// Catalog.hpp: everything that the server publishes about itself. Fixed tables, whose JSON text is made on
// first use, once, and only read afterwards: any thread may read it.
#pragma once

#include "JSON/JSONValue.hpp"

#include <string_view>

namespace tidewell {

/// A namespace: no instances.
class Catalog {
public:
    Catalog() = delete;

    /// The array of the 60 tools as "tools/list" publishes it, in an order that is part of the interface.
    static std::string_view tools();
    /// The array of the nine resources of "resources/list", in order.
    static std::string_view resources();
    /// The array of the six prompts of "prompts/list", in order.
    static std::string_view prompts();

    /// Whether a prompt of exactly this name is published.
    static bool hasPrompt(std::string_view name) noexcept;
    /// The "prompts/get" result for a prompt: one user message. Total: an unknown name gets the generic text.
    static JSONValue promptMessages(std::string_view name);
};

}  // namespace tidewell
