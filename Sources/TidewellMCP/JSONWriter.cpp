// JSONWriter.cpp: a value to its one line of compact JSON text.
#include "ByteBuffer.hpp"
#include "JSONNode.hpp"
#include "JSONText.hpp"
#include "UTF8.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>

namespace tidewell {

namespace {

/// The letter after the backslash for the control characters that have one, in JSON as in C; 'u' for others.
constexpr char escapeLetter(char byte) noexcept {
    switch (byte) {
    case '"':
    case '\\': return byte;
    case '\b': return 'b';
    case '\f': return 'f';
    case '\n': return 'n';
    case '\r': return 'r';
    case '\t': return 't';
    default: return 'u';
    }
}

}  // namespace

/// Writes behind what a buffer holds. The place to write at goes from function to function by value, because
/// one in memory would be read and stored again around every byte written. A null place: something inside has
/// no JSON form, and what was written is worthless. `isEmbedded`: inside a string that is the text of a
/// value, where each quote and backslash of that text takes one more backslash.
template <bool isEmbedded>
class JSONWriter {
public:
    explicit JSONWriter(ByteBuffer& text, const char* end = nullptr) : text_(text), end_(end) {}

    /// Appends the text of a value, or of the object with these members; "null" when something inside has no
    /// JSON form.
    void append(const auto& content) {
        const std::size_t before = text_.size();
        char* const start = text_.room(slack);
        end_ = text_.data() + text_.capacity();
        char* end = write(content, start);
        if (end == nullptr) end = put(text_.data() + before, "null");
        text_.endAt(end);
    }

private:
    friend class JSONWriter<false>;

    // Whoever writes a value may count on `assured` bytes behind its place: enough for any scalar and for a
    // short string, so that one look at the room per element or member does. After each such look there are
    // `slack`.
    static constexpr std::size_t assured = 32;
    static constexpr std::size_t slack = 64;
    static_assert(slack >= 1 + (JSONValue::shortTextSize + 4) + 1 + assured);  // comma, key, colon, value

    /// Where `at` lies now that `more` bytes fit there, and the slack behind them.
    char* room(char* at, std::size_t more = 0) {
        if (static_cast<std::size_t>(end_ - at) >= more + slack) return at;
        text_.endAt(at);
        at = text_.room(more + slack);
        end_ = text_.data() + text_.capacity();
        return at;
    }

    static char* put(char* at, char byte) noexcept {
        *at = byte;
        return at + 1;
    }
    static char* put(char* at, std::string_view word) noexcept {
        std::memcpy(at, word.data(), word.size());
        return at + word.size();
    }

    char* write(const JSONValue& value, char* at) {
        switch (value.case_) {
        case JSONValue::Case::bool_: return put(at, value.load<bool>() ? "true" : "false");
        case JSONValue::Case::int_: return std::to_chars(at, at + assured, value.load<std::int64_t>()).ptr;
        case JSONValue::Case::double_: return writeDouble(value.load<double>(), at);
        case JSONValue::Case::string: return writeString(value, at);
        case JSONValue::Case::array: return writeArray(value, at);
        case JSONValue::Case::object: return write(value.members(), at);
        case JSONValue::Case::null: return put(at, "null");
        }
        return nullptr;
    }

    char* writeArray(const JSONValue& array, char* at) {
        char before = '[';
        for (const JSONValue& element : array.elements()) {
            at = put(room(at), std::exchange(before, ','));
            at = write(element, at);
            if (at == nullptr) return nullptr;
        }
        at = room(at);
        if (before == '[') at = put(at, '[');
        return put(at, ']');
    }

    char* write(std::span<const JSONValue::Member> members, char* at) {
        char before = '{';
        for (const JSONValue::Member& member : members) {
            at = put(room(at), std::exchange(before, ','));
            at = writeString(member.key, at);
            if (at == nullptr) return nullptr;
            at = write(member.value, put(at, ':'));
            if (at == nullptr) return nullptr;
        }
        at = room(at);
        if (before == '{') at = put(at, '{');
        return put(at, '}');
    }

    char* writeString(const JSONValue& string, char* at) {
        if ((string.textForm_ & JSONValue::verbatim) == 0) return writeOtherString(string, at);
        if (string.isShortText()) {
            at = putQuote(at);
            // All bytes of the place, whatever the length: a copy without a loop.
            std::memcpy(at, string.payload_.data(), JSONValue::shortTextSize);
            return putQuote(at + string.shortLength());
        }
        auto& text = string.node<char>();
        return putQuote(put(putQuote(room(at, text.count)), {text.elements(), text.count}));
    }

    char* writeOtherString(const JSONValue& string, char* at) {
        if (!isEmbedded && string.isTextOfValue()) return writeEmbedded(string, at);
        return writeEscaped(string.text(), at);
    }

    /// The text of a value as a string, written without ever being held: the value itself, with what the
    /// quotes and backslashes of its text take inside quotes.
    char* writeEmbedded(const JSONValue& string, char* at) {
        at = put(at, '"');
        const std::ptrdiff_t start = at - text_.data();
        JSONWriter<true> inner(text_, end_);
        at = inner.write(string.valueOfText(), at);
        end_ = inner.end_;
        if (at == nullptr) at = put(text_.data() + start, "null");
        return put(room(at), '"');
    }

    static char* putQuote(char* at) noexcept {
        if (isEmbedded) at = put(at, '\\');
        return put(at, '"');
    }

    char* writeEscaped(std::string_view string, char* at) {
        const char* from = string.data();
        const char* const end = from + string.size();
        at = putQuote(room(at, string.size()));
        for (;;) {
            const char* const run = from;
            from = skipPlain(from, end);
            at = put(room(at, static_cast<std::size_t>(end - run)),
                     {run, static_cast<std::size_t>(from - run)});
            if (from == end) return putQuote(at);
            if (static_cast<unsigned char>(*from) < 0x80) {
                at = writeEscape(*from++, at);
            } else {
                const std::size_t length = multibyteLength({from, static_cast<std::size_t>(end - from)});
                if (length == 0) return nullptr;
                at = put(at, {from, length});
                from += length;
            }
        }
    }

    static char* writeEscape(char byte, char* at) noexcept {
        constexpr std::string_view hexDigits = "0123456789abcdef";
        const char letter = escapeLetter(byte);
        at = put(at, isEmbedded ? "\\\\" : "\\");
        if (isEmbedded && !isPlain(letter)) at = put(at, '\\');
        at = put(at, letter);
        if (letter != 'u') return at;
        const auto code = static_cast<unsigned char>(byte);
        return put(put(put(at, "00"), hexDigits[code >> 4]), hexDigits[code & 0xF]);
    }

    static char* writeDouble(double value, char* at) {
        static_assert(assured >= sizeof "-2.2250738585072014e-308");  // the longest of the shortest forms
        return std::isfinite(value) ? std::to_chars(at, at + assured, value).ptr : nullptr;
    }

    ByteBuffer& text_;
    const char* end_;  // of the room
};

void JSONValue::writeJSON(ByteBuffer& text) const { JSONWriter<false>(text).append(*this); }

void JSONValue::writeJSON(std::span<const Member> members, ByteBuffer& text) {
    JSONWriter<false>(text).append(members);
}

std::string JSONValue::jsonString() const {
    ByteBuffer text;
    writeJSON(text);
    return std::string(text.view());
}

}  // namespace tidewell
