// JSONWriter.cpp: a value to its one line of compact JSON text.
#include "JSONText.hpp"
#include "JSONValue.hpp"
#include "UTF8.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
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

/// Writes through a pointer into a string that is kept larger than its content: one check per token instead
/// of one per append.
class Writer {
public:
    /// False when something inside has no JSON form; what was written is worthless then.
    bool write(const JSONValue& value) {
        switch (value.kind()) {
        case JSONValue::Case::bool_: append(*value.boolean() ? "true" : "false"); return true;
        case JSONValue::Case::int_: writeInteger(*value.integer()); return true;
        case JSONValue::Case::double_: return writeDouble(*value.number());
        case JSONValue::Case::string: return writeString(*value.string());
        case JSONValue::Case::array: return writeArray(value);
        case JSONValue::Case::object: return writeObject(value);
        case JSONValue::Case::null: append("null"); return true;
        }
        return false;
    }

    std::string take() {
        text_.resize(size_);
        return std::move(text_);
    }

private:
    bool writeArray(const JSONValue& array) {
        append('[');
        bool first = true;
        for (const JSONValue& element : array.elements()) {
            if (!std::exchange(first, false)) append(',');
            if (!write(element)) return false;
        }
        append(']');
        return true;
    }

    bool writeObject(const JSONValue& object) {
        append('{');
        bool first = true;
        for (const JSONValue::Member& member : object.members()) {
            if (!std::exchange(first, false)) append(',');
            if (!writeString(*member.key.string())) return false;
            append(':');
            if (!write(member.value)) return false;
        }
        append('}');
        return true;
    }

    bool writeString(std::string_view string) {
        const char* at = string.data();
        const char* const end = at + string.size();
        reserve(string.size() + 2);
        append('"');
        for (;;) {
            const char* const run = at;
            at = skipPlain(at, end);
            append({run, static_cast<std::size_t>(at - run)});
            if (at == end) break;
            if (static_cast<unsigned char>(*at) < 0x80) {
                writeEscape(*at++);
            } else {
                const std::size_t length = multibyteLength({at, static_cast<std::size_t>(end - at)});
                if (length == 0) return false;
                append({at, length});
                at += length;
            }
        }
        append('"');
        return true;
    }

    void writeEscape(char byte) {
        constexpr std::string_view hexDigits = "0123456789abcdef";
        const char letter = escapeLetter(byte);
        append('\\');
        append(letter);
        if (letter != 'u') return;
        const auto code = static_cast<unsigned char>(byte);
        append("00");
        append(hexDigits[code >> 4]);
        append(hexDigits[code & 0xF]);
    }

    void writeInteger(std::int64_t value) {
        std::array<char, 20> digits{};  // "-9223372036854775808"
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        append({digits.data(), static_cast<std::size_t>(end - digits.data())});
    }

    bool writeDouble(double value) {
        if (!std::isfinite(value)) return false;
        std::array<char, 32> digits{};  // the longest shortest form is "-2.2250738585072014e-308"
        const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
        append({digits.data(), static_cast<std::size_t>(end - digits.data())});
        return true;
    }

    void append(char byte) {
        reserve(1);
        text_[size_++] = byte;
    }

    void append(std::string_view bytes) {
        reserve(bytes.size());
        bytes.copy(text_.data() + size_, bytes.size());
        size_ += bytes.size();
    }

    void reserve(std::size_t more) {
        if (text_.size() - size_ >= more) return;
        text_.resize(std::max(text_.size() * 2, size_ + more));
    }

    std::string text_ = std::string(256, '\0');
    std::size_t size_ = 0;
};

}  // namespace

std::string JSONValue::jsonString() const {
    Writer writer;
    return writer.write(*this) ? writer.take() : "null";
}

}  // namespace tidewell
