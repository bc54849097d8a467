// JSONValue.hpp: the one JSON tree of the server. Every request parameter, reply, catalog entry and host
// message is one of these.
//
// Text       all text is UTF-8. The way in is decode() or readJSON() (JSONReader.hpp), the way out
//            jsonString().
// Copies     are independent values and cheap: what lies behind a long string, an array or an object is never
//            changed while two values refer to it, so that it can be shared unseen.
// Threads    different values may be used on different threads at once, also when one is a copy of the other;
//            but what holds a textOf() on one thread at a time, copies included.
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
#include <utility>

namespace tidewell {

class ByteBuffer;
class NodeArena;

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
    /// `isVerbatim`: between quotes these bytes are JSON as they are, well-formed UTF-8 without anything to
    /// escape. Where memory comes from an arena, here and below, is up to whoever builds a large tree.
    explicit JSONValue(std::string_view text, bool isVerbatim, NodeArena* arena)
        : textForm_(isVerbatim ? verbatim : 0), case_(Case::string) {
        if (text.size() <= shortTextSize) {
            storeShortText(text);
        } else {
            storeLongText(text, arena);
        }
    }

    JSONValue(const JSONValue& other) noexcept;
    JSONValue(JSONValue&& other) noexcept
        : payload_(other.payload_),
          textForm_(other.textForm_),
          case_(std::exchange(other.case_, Case::null)) {}
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
    static JSONValue array(std::span<JSONValue> elements, NodeArena* arena = nullptr);
    /// An object of copies. Of members with one key the last wins, here and below.
    static JSONValue object(std::initializer_list<Member> members);
    /// An object that takes over keys and values standing by turns: key, value, key, value, … Every key must
    /// be a string. The span's values are unspecified afterwards.
    static JSONValue object(std::span<JSONValue> keysAndValues, NodeArena* arena = nullptr);

    /// A string: what jsonString() gives for `value`. It is made when somebody looks at it; who only writes it
    /// out never pays for it. For a large reply inside a tool result that halves time and memory.
    static JSONValue textOf(JSONValue value);

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
    std::optional<std::string_view> string() const;
    std::span<const JSONValue> elements() const noexcept;  ///< empty unless an array
    std::span<const Member> members() const noexcept;      ///< empty unless an object; keys are unique
    /// The value under `key`, or null when this is no object or has no such member. Owned by this value.
    const JSONValue* find(std::string_view key) const;

    /// Moves the value under `key` out and leaves null in its place; nothing when there is no such member.
    std::optional<JSONValue> take(std::string_view key);

    /// One line of compact JSON text: no blanks, slashes not escaped, members in no promised order, doubles
    /// in their shortest form that reads back equal. Never fails: when a double is not finite or a string not
    /// UTF-8 anywhere inside, the whole text is "null".
    std::string jsonString() const;
    /// Appends the same to `text`. Throws std::bad_alloc, and leaves an unfinished text behind then.
    void writeJSON(ByteBuffer& text) const;
    /// Appends the object with these members, whose keys differ.
    static void writeJSON(std::span<const Member> members, ByteBuffer& text);

    /// Same case and equal payload; doubles as floating-point numbers compare, objects whatever their order
    /// (at a cost that grows with the square of their size when the orders differ).
    friend bool operator==(const JSONValue& left, const JSONValue& right);

private:
    template <typename Element>
    struct Node;
    template <bool>
    friend class JSONWriter;

    // In textForm_: the length of a short text, or that it is a long one; and whether it is verbatim JSON.
    static constexpr std::size_t shortTextSize = 14;
    static constexpr std::uint8_t isLong = 0x0F;
    static constexpr std::uint8_t verbatim = 0x10;
    static constexpr std::uint8_t ofValue =
        0x20;  // long, and only the value whose text it is lies behind it yet

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
    std::span<Element> own();

    void swap(JSONValue& other) noexcept {
        payload_ = std::exchange(other.payload_, payload_);  // as a whole: std::swap would go byte by byte
        std::swap(textForm_, other.textForm_);
        std::swap(case_, other.case_);
    }
    /// Whether there is a node: an empty array or object has none.
    bool isShared() const noexcept {
        if (case_ == Case::string) return shortLength() == isLong;
        return (case_ == Case::array || case_ == Case::object) && load<const void*>() != nullptr;
    }
    bool isShortText() const noexcept { return case_ == Case::string && shortLength() != isLong; }
    std::size_t shortLength() const noexcept { return textForm_ & isLong; }
    bool isTextOfValue() const noexcept { return case_ == Case::string && (textForm_ & ofValue) != 0; }
    const JSONValue& valueOfText() const noexcept;
    std::string_view text() const {
        if (isShortText()) return {payload_.data(), shortLength()};
        return longText();
    }
    std::string_view longText() const;
    /// Two overlapping copies of a fixed size instead of a call: keys and short values are most of a message.
    void storeShortText(std::string_view text) noexcept {
        char* const to = payload_.data();
        const char* const from = text.data();
        const std::size_t size = text.size();
        textForm_ |= static_cast<std::uint8_t>(size);
        if (size >= 8) {
            std::memcpy(to, from, 8);
            std::memcpy(to + size - 8, from + size - 8, 8);
        } else if (size >= 4) {
            std::memcpy(to, from, 4);
            std::memcpy(to + size - 4, from + size - 4, 4);
        } else {
            for (std::size_t at = 0; at < size; ++at) to[at] = from[at];
        }
    }
    void storeLongText(std::string_view text, NodeArena* arena);
    void release() noexcept;
    void convertNumbers();
    std::uint64_t firstWord() const;
    static bool sameText(const JSONValue& left, const JSONValue& right) {
        if (!left.isShortText() || !right.isShortText()) return left.text() == right.text();
        // What is unused in a short text is zero, so that short ones compare as words; most differ in the
        // first.
        return left.load<std::uint64_t>() == right.load<std::uint64_t>() && left.payload_ == right.payload_ &&
               left.shortLength() == right.shortLength();
    }
    static std::size_t dropSuperseded(std::span<JSONValue> keysAndValues);

    // Sixteen bytes in all, because building and freeing the tree is most of the cost of reading: a scalar or
    // a string of up to fourteen bytes lies in the value itself (unused bytes zero, so that short keys
    // compare as a whole), anything larger in one node behind it (an empty array or object in none).
    // Mutable, because the text of a value takes its other form when somebody looks at it.
    alignas(8) mutable std::array<char, shortTextSize> payload_{};
    mutable std::uint8_t textForm_ = 0;
    Case case_ = Case::null;
};

/// One member of an object; the key is always a string.
struct JSONValue::Member {
    JSONValue key;
    JSONValue value;
};

static_assert(sizeof(JSONValue) == 16);

}  // namespace tidewell
