// JSONValue.hpp: a JSON value that is built or looked at: what the server itself says, and small parts of what it
// receives. What is only passed on never becomes one: JSONWriter rewrites it as text.
//
// Text       all text is UTF-8. The way in is decode(), the way out jsonString().
// Copies     are cheap and cannot fail, and values never change: what is not a number is shared behind them.
// Threads    any thread may read any value.
// Nesting    a value read from text is at most `maximumNesting` deep; the operations here recurse that far.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace tidewell {

class ByteBuffer;

class JSONValue {
public:
    /// The seven kinds. Integers and floating-point numbers are distinct and never merge.
    enum class Kind : std::uint8_t { null, boolean, integer, real, string, array, object };

    struct Member;

    JSONValue() noexcept = default;
    JSONValue(std::nullptr_t) noexcept {}
    /// Only a real bool: a pointer or a number must not turn into one unnoticed.
    template <std::same_as<bool> Boolean>
    JSONValue(Boolean value) noexcept : content_(value) {}
    template <std::signed_integral Integer>
    JSONValue(Integer value) noexcept : content_(std::int64_t{value}) {}
    JSONValue(double value) noexcept : content_(value) {}
    JSONValue(std::string text) : content_(std::make_shared<const std::string>(std::move(text))) {}
    JSONValue(std::string_view text) : JSONValue(std::string(text)) {}
    JSONValue(const char* text) : JSONValue(std::string(text)) {}

    static JSONValue array(std::vector<JSONValue> elements);
    /// Of members with the same key the last wins.
    static JSONValue object(std::vector<Member> members);

    /// Reads one JSON text. Throws JSONError (JSONReader.hpp).
    static JSONValue decode(std::string_view text);

    Kind kind() const noexcept { return static_cast<Kind>(content_.index()); }
    bool isNull() const noexcept { return kind() == Kind::null; }

    // Typed views: nothing when the value is of another kind, never a conversion. What they point into lives as
    // long as the value does.
    std::optional<bool> boolean() const noexcept { return view<bool>(); }
    std::optional<std::int64_t> integer() const noexcept { return view<std::int64_t>(); }
    std::optional<double> real() const noexcept { return view<double>(); }
    std::optional<std::string_view> string() const noexcept;
    std::span<const JSONValue> elements() const noexcept;  ///< empty unless an array
    std::span<const Member> members() const noexcept;      ///< empty unless an object; keys are unique
    /// The value under `key`, or null when this is no object or has no such member. Owned by this value.
    const JSONValue* find(std::string_view key) const noexcept;

    /// One line of compact JSON text: no blanks, slashes not escaped, members in no promised order, doubles in
    /// their shortest form that reads back equal. Never fails: when a double is not finite or a string not
    /// UTF-8 anywhere inside, the whole text is "null".
    std::string jsonString() const;
    /// Appends the same to `text`.
    void writeJSON(ByteBuffer& text) const;

    /// Same kind and equal content; doubles as floating-point numbers compare, objects whatever their order
    /// (at a cost that grows with the square of their size).
    friend bool operator==(const JSONValue& left, const JSONValue& right);

private:
    // Shared, so that no copy of the variant can fail: after a failed one, GCC 12's library jumps anywhere.
    using String = std::shared_ptr<const std::string>;
    using Array = std::shared_ptr<const std::vector<JSONValue>>;
    using Object = std::shared_ptr<const std::vector<Member>>;

    template <typename Content>
    std::optional<Content> view() const noexcept {
        const Content* const content = std::get_if<Content>(&content_);
        return content == nullptr ? std::nullopt : std::optional(*content);
    }

    std::variant<std::monostate, bool, std::int64_t, double, String, Array, Object> content_;  // as in Kind
};

/// One member of an object.
struct JSONValue::Member {
    std::string key;
    JSONValue value;
};

}  // namespace tidewell
