// JudgedValue.hpp: a JSONValue in the judge's form (Judge.hpp), to be compared with what the judge read.
#pragma once

#include "JSON/JSONValue.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>

namespace tidewell::test {

inline nlohmann::json judged(const JSONValue& value) {
    using json = nlohmann::json;
    using Kind = JSONValue::Kind;
    json container = value.kind() == Kind::array ? json::array() : json::object();
    switch (value.kind()) {
    case Kind::null: return nullptr;
    case Kind::boolean: return *value.boolean();
    case Kind::integer: return *value.integer();
    // The one double that is always written like an integer.
    case Kind::real:
        return *value.real() == static_cast<double>(INT64_MIN) ? json(INT64_MIN) : json(*value.real());
    case Kind::string: return *value.string();
    case Kind::array:
        for (const JSONValue& element : value.elements()) container.push_back(judged(element));
        break;
    case Kind::object:
        for (const auto& [key, member] : value.members()) container[key] = judged(member);
        if (container.size() != value.members().size()) return json::value_t::discarded;  // a key twice
        break;
    }
    return container;
}

/// Whether our value is what the judge read, in kind too: compared as text, because to the library 3 equals 3.0.
inline bool agrees(const JSONValue& ours, const nlohmann::json& theirs) {
    return judged(ours).dump() == theirs.dump();
}

}  // namespace tidewell::test
