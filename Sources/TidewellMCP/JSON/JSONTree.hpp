// JSONTree.hpp: builds a JSONValue from what a reader reports.
#pragma once

#include "JSON/JSONReader.hpp"
#include "JSON/JSONValue.hpp"

#include <string>
#include <utility>
#include <vector>

namespace tidewell {

class JSONTree : public JSONConsumer {
public:
    /// The value, once the reader has read it.
    JSONValue take() { return std::move(value_); }

    void null() { add(nullptr); }
    void boolean(bool value) { add(value); }
    void number(const NumberToken& token) {
        std::visit([&](auto value) { add(value); }, valueOf(token));
    }
    void string(std::string_view run) { add(run); }
    void beginString() { text_.clear(); }
    void text(std::string_view run) { text_ += run; }
    void scalar(std::uint32_t scalar) { appendScalar(text_, scalar); }
    void endString() { add(text_); }
    void key() { open_.back().members.emplace_back(); }
    void colon() {  // what came since as the member's value is its key
        JSONValue::Member& member = open_.back().members.back();
        member.key = *member.value.string();
    }
    void beginArray() { open_.push_back({.isObject = false}); }
    void endArray() { close(JSONValue::array(std::move(open_.back().elements))); }
    void beginObject() { open_.push_back({.isObject = true}); }
    void endObject() { close(JSONValue::object(std::move(open_.back().members))); }

private:
    /// An array or object whose end has not been read.
    struct Container {
        bool isObject;
        std::vector<JSONValue> elements = {};
        std::vector<JSONValue::Member> members = {};
    };

    void add(JSONValue value) {
        if (open_.empty()) {
            value_ = std::move(value);
        } else if (open_.back().isObject) {
            open_.back().members.back().value = std::move(value);
        } else {
            open_.back().elements.push_back(std::move(value));
        }
    }
    void close(JSONValue container) {
        open_.pop_back();
        add(std::move(container));
    }

    JSONValue value_;
    std::vector<Container> open_;
    std::string text_;
};

}  // namespace tidewell
