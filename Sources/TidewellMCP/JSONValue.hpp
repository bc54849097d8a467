// JSONValue.hpp: the one JSON tree of the server. Every request parameter, reply, catalog entry and host
// message is one of these.
//
// Text       all text is UTF-8. The way in is decode() or readJSON() (JSONReader.hpp), the way out jsonString().
// Copies     are independent values and cheap: what lies behind a long string, an array or an object is never
//            changed while two values refer to it, so that it can be shared unseen.
// Threads    different values may be used on different threads at once, also when one is a copy of the other.
// Nesting    a value read from text is at most `maximumNesting` deep; the operations here recurse that far.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tidewell {

class JSONValue {
public:
    /// The seven cases. Integers and floating-point numbers are distinct and never merge.
    enum class Case : std::uint8_t { bool_, int_, double_, string, array, object, null };

    struct Member;

    JSONValue() noexcept = default;
    JSONValue(std::nullptr_t) noexcept {}
    /// Only a real bool: a pointer or a number must not turn into one unnoticed.
    template <std::same_as<bool> Boolean>
    JSONValue(Boolean value) noexcept : case_(Case::bool_) {
        store(value);
    }
    template <std::signed_integral Integer>
    JSONValue(Integer value) noexcept : case_(Case::int_) {
        store(static_cast<std::int64_t>(value));
    }
    JSONValue(double value) noexcept : case_(Case::double_) { store(value); }
    JSONValue(std::string_view text);
    JSONValue(const std::string& text) : JSONValue(std::string_view(text)) {}
    JSONValue(const char* text) : JSONValue(std::string_view(text)) {}

    JSONValue(const JSONValue& other) noexcept;
    JSONValue(JSONValue&& other) noexcept { swap(other); }
    JSONValue& operator=(JSONValue other) noexcept {
        swap(other);
        return *this;
    }
    ~JSONValue() {
        if (isShared()) release();
    }

    /// An array of copies, in order.
    static JSONValue array(std::initializer_list<JSONValue> elements);
    /// An array that takes the elements over; the span's values are null afterwards.
    static JSONValue array(std::span<JSONValue> elements);
    /// An object of copies. Of members with one key the last wins, here and below.
    static JSONValue object(std::initializer_list<Member> members);
    /// An object that takes over keys and values standing by turns: key, value, key, value, … Every key must
    /// be a string. The span's values are unspecified afterwards.
    static JSONValue object(std::span<JSONValue> keysAndValues);

    /// The value of a message part that may be absent: null then. A number equal to 1 or 0 becomes a boolean
    /// on this path, so a client's "limit": 1 reaches the host app as true; hosts depend on it. Any other
    /// whole number within 64 bits becomes an int, however it was written. Never fails.
    static JSONValue from(std::optional<JSONValue> any);
    /// Reads one JSON text. Booleans and numbers are told apart by their token, so 1 stays a number here,
    /// unlike in from(): replies of the host app keep what the host app wrote. Throws JSONError
    /// (JSONReader.hpp).
    static JSONValue decode(std::string_view text);

    Case kind() const noexcept { return case_; }
    bool isNull() const noexcept { return case_ == Case::null; }

    // Typed views: nothing when the value is of another case, never a conversion. Views into a value live as
    // long as the value does.
    std::optional<bool> boolean() const noexcept;
    std::optional<std::int64_t> integer() const noexcept;
    std::optional<double> number() const noexcept;  ///< the double case only
    std::optional<std::string_view> string() const noexcept;
    std::span<const JSONValue> elements() const noexcept;  ///< empty unless an array
    std::span<const Member> members() const noexcept;      ///< empty unless an object; keys are unique
    /// The value under `key`, or null when this is no object or has no such member. Owned by this value.
    const JSONValue* find(std::string_view key) const noexcept;

    /// Moves the value under `key` out and leaves null in its place; nothing when there is no such member.
    std::optional<JSONValue> take(std::string_view key);

    /// One line of compact JSON text: no blanks, slashes not escaped, members in no promised order, doubles
    /// in their shortest form that reads back equal. Never fails: when a double is not finite or a string not
    /// UTF-8 anywhere inside, the whole text is "null".
    std::string jsonString() const;

    /// Same case and equal payload; doubles as floating-point numbers compare, objects whatever their order
    /// (at a cost that grows with the square of their size when the orders differ).
    friend bool operator==(const JSONValue& left, const JSONValue& right) noexcept;

private:
    template <typename Element>
    struct Node;

    static constexpr std::size_t shortTextSize = 14;
    static constexpr std::uint8_t isLong = 0xFF;

    template <typename Payload>
    void store(Payload payload) noexcept {
        std::memcpy(payload_.data(), &payload, sizeof payload);
    }
    template <typename Payload>
    Payload load() const noexcept {
        Payload payload;
        std::memcpy(&payload, payload_.data(), sizeof payload);
        return payload;
    }
    template <typename Element>
    Node<Element>& node() const noexcept {
        return *load<Node<Element>*>();
    }
    template <typename Element>
    void detach();

    void swap(JSONValue& other) noexcept {
        std::swap(payload_, other.payload_);
        std::swap(textLength_, other.textLength_);
        std::swap(case_, other.case_);
    }
    bool isShared() const noexcept {
        return case_ == Case::array || case_ == Case::object ||
               (case_ == Case::string && textLength_ == isLong);
    }
    bool isShortText() const noexcept { return case_ == Case::string && textLength_ != isLong; }
    std::string_view text() const noexcept;
    void release() noexcept;
    void convertNumbers();
    static bool sameText(const JSONValue& left, const JSONValue& right) noexcept;
    static std::size_t dropSuperseded(std::span<JSONValue> keysAndValues);

    // Sixteen bytes in all, because building and freeing the tree is most of the cost of reading: a scalar or
    // a string of up to fourteen bytes lies in the value itself (unused bytes zero, so that short keys
    // compare as a whole), anything larger in one exact allocation behind it.
    alignas(8) std::array<char, shortTextSize> payload_{};
    std::uint8_t textLength_ = 0;
    Case case_ = Case::null;
};

/// One member of an object; the key is always a string.
struct JSONValue::Member {
    JSONValue key;
    JSONValue value;
};

static_assert(sizeof(JSONValue) == 16);

}  // namespace tidewell
