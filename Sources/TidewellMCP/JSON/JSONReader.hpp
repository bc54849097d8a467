// JSONReader.hpp: the grammar of JSON. It reads one text in one pass and without recursion, and reports what it
// reads to a consumer, which builds a tree, writes another text or ignores it.
//
// Accepts    RFC 8259, strictly: one value of any kind, blanks (space, tab, line feed, carriage return) around
//            it, nothing else.
// Refuses    invalid UTF-8 anywhere, a byte-order mark, control characters inside strings, unpaired surrogate
//            escapes, a number beyond the range of a double (1e400), nesting deeper than `maximumNesting`.
// Errors     JSONError. Discard what was reported before it.
// Threads    one reader, one thread.
//
// A text is one value:             reader.readValue(consumer); reader.readEnd();
// or an object read by its keys:   reader.readObject([&](std::string_view key) { reader.skipValue(); });
#pragma once

#include "Base/UTF8.hpp"
#include "JSON/JSONNumber.hpp"
#include "JSON/JSONText.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell {

/// How many arrays and objects may stand inside one another.
inline constexpr std::size_t maximumNesting = 512;

/// Why a text is not JSON. The description is stable: "invalid JSON at byte 3: expected a value".
class JSONError : public std::exception {
public:
    JSONError(const char* reason, std::size_t offset);
    const char* what() const noexcept override { return description_.c_str(); }
    std::size_t offset() const noexcept { return offset_; }  ///< in bytes, from the start of the text

private:
    std::string description_;
    std::size_t offset_;
};

/// The source of a text that arrives in pieces.
class JSONSource {
public:
    virtual ~JSONSource() = default;
    /// Returns the next piece with `kept`, the end of the previous one, in front of it; `kept` alone when
    /// nothing follows. The previous piece is gone then.
    virtual std::string_view next(std::string_view kept) = 0;
};

/// What a reader reports, and the consumer that ignores all of it. Others redefine the events that they need.
/// A run is text that may stand in any JSON string as it is. A string that has escapes, or lies in several
/// pieces, is reported between its begin and its end, as runs and decoded escapes. A member's key is the string
/// between key() and colon().
struct JSONConsumer {
    void null() {}
    void boolean(bool) {}
    void number(const NumberToken&) {}
    void string(std::string_view) {}
    void beginString() {}
    void text(std::string_view) {}
    void scalar(std::uint32_t) {}
    void endString() {}
    void key() {}
    void colon() {}
    void beginArray() {}
    void endArray() {}
    void beginObject() {}
    void endObject() {}
    void comma() {}
};

class JSONReader {
public:
    /// Reads `text`, which has to live as long as the reader.
    explicit JSONReader(std::string_view text) noexcept
        : begin_(text.data()), at_(begin_), end_(begin_ + text.size()), tail_(end_) {}
    /// Reads what `source` gives.
    explicit JSONReader(JSONSource& source) noexcept : source_(&source) {}

    /// The next byte that is not a blank: it tells the kind of a value.
    [[gnu::always_inline]] char next() {
        if (at_ == end_ || isBlank(*at_)) skipBlanks();
        if (at_ == end_) fail(unexpectedEnd);
        return *at_;
    }

    /// Reads one value to its end.
    template <typename Consumer>
    void readValue(Consumer& consumer);
    void skipValue();

    /// Reads an object: for each member calls member(key), which has to read the value. The key lives until
    /// then. Reads nothing and returns false when what follows is not an object.
    template <typename OnMember>
    bool readObject(OnMember member);

    /// Reads one value; nothing when it is not a string.
    std::optional<std::string> readString();
    /// The same, but copies into `place` only what does not stand in the text as it is, or would not stay there.
    std::optional<std::string_view> readString(std::string& place);

    /// Skips one value and returns its text. Only for a text that does not come from a source.
    [[gnu::always_inline]] std::string_view rawValue();

    /// Nothing but blanks may follow.
    void readEnd();

private:
    static constexpr const char* unexpectedEnd = "unexpected end of the text";

    static constexpr bool isBlank(char byte) noexcept {
        return byte <= ' ' && (byte == ' ' || byte == '\n' || byte == '\r' || byte == '\t');
    }
    void skipBlanks();
    bool isAt(char byte) const noexcept { return at_ != end_ && *at_ == byte; }
    std::string_view since(const char* start) const noexcept {
        return {start, static_cast<std::size_t>(at_ - start)};
    }

    /// Opens a container and returns whether anything is in it; an empty one is closed again.
    bool open(bool isObject);
    /// After a value inside a container: true if another follows; false when the closing bracket was read.
    [[gnu::always_inline]] bool continues() {
        const bool isObject = isObject_[nesting_ - 1];
        const char after = next();
        if (after == ',') {
            ++at_;
            if (isObject && !isAt('"')) expectKey();
            return true;
        }
        if (after != (isObject ? '}' : ']')) fail(isObject ? "expected ',' or '}'" : "expected ',' or ']'");
        ++at_;
        --nesting_;
        return false;
    }
    void expectKey();

    template <typename Consumer>
    [[gnu::always_inline]] void readString(Consumer& consumer);
    template <typename Consumer>
    [[gnu::always_inline]] void readKey(Consumer& consumer) {
        consumer.key();
        readString(consumer);
        if (!isAt(':') && next() != ':') fail("expected ':'");
        ++at_;
        consumer.colon();
    }
    template <typename Consumer>
    void readPieces(const char* run, Consumer& consumer);
    void getMoreOfString();
    std::uint32_t readEscape();
    std::uint32_t readFourHexDigits();
    class StringKeeper;
    [[gnu::always_inline]] std::string_view readKey();
    NumberToken readNumber();
    void getWholeNumber();
    void readWord(std::string_view word);

    void readyFor(std::size_t bytes) {
        while (static_cast<std::size_t>(end_ - at_) < bytes && refill(at_)) continue;
    }
    bool refill(const char* keepFrom) { return source_ != nullptr && refillFromSource(keepFrom); }
    bool refillFromSource(const char* keepFrom);
    [[noreturn]] void fail(const char* reason) const;

    JSONSource* source_ = nullptr;
    const char* begin_ = nullptr;  // of the piece
    const char* at_ = nullptr;
    const char* end_ = nullptr;
    const char* tail_ = nullptr;  // from here on the piece may be the beginning of a number
    std::size_t before_ = 0;      // bytes of the text before `begin_`
    std::size_t nesting_ = 0;
    std::array<bool, maximumNesting> isObject_;  // the first `nesting_` of them
    std::string key_;                            // of the member being read
};

template <typename Consumer>
void JSONReader::readValue(Consumer& consumer) {
    const std::size_t outside = nesting_;
    for (;;) {
        switch (next()) {
        case '{':
            consumer.beginObject();
            if (open(true)) {
                readKey(consumer);
                continue;
            }
            consumer.endObject();
            break;
        case '[':
            consumer.beginArray();
            if (open(false)) continue;
            consumer.endArray();
            break;
        case '"': readString(consumer); break;
        case 't':
            readWord("true");
            consumer.boolean(true);
            break;
        case 'f':
            readWord("false");
            consumer.boolean(false);
            break;
        case 'n':
            readWord("null");
            consumer.null();
            break;
        default: consumer.number(readNumber());
        }
        for (;;) {
            if (nesting_ == outside) return;
            const bool isObject = isObject_[nesting_ - 1];
            if (continues()) {
                consumer.comma();
                if (isObject) readKey(consumer);
                break;
            }
            isObject ? consumer.endObject() : consumer.endArray();
        }
    }
}

template <typename OnMember>
bool JSONReader::readObject(OnMember member) {
    if (next() != '{') return false;
    if (!open(true)) return true;
    do {
        member(readKey());
    } while (continues());
    return true;
}

/// From the opening quote past the closing one.
template <typename Consumer>
inline void JSONReader::readString(Consumer& consumer) {
    const char* const run = at_ + 1;
    at_ = skipVerbatim(run, end_);
    if (isAt('"')) {
        consumer.string({run, at_++});
    } else {
        consumer.beginString();
        readPieces(run, consumer);
        consumer.endString();
        ++at_;
    }
}

/// Reads on to the closing quote; what stands from `run` on has not been reported yet.
template <typename Consumer>
void JSONReader::readPieces(const char* run, Consumer& consumer) {
    for (;;) {
        consumer.text(since(run));
        if (isAt('"')) return;
        if (!isAt('\\')) getMoreOfString();
        while (isAt('\\')) consumer.scalar(readEscape());
        run = at_;
        at_ = skipVerbatim(at_, end_);
    }
}

/// Takes one string or key, in `place` where it does not stand in the text as it is. A piece of a source does not
/// stay either.
class JSONReader::StringKeeper : public JSONConsumer {
public:
    StringKeeper(std::string& place, bool textStays) : place_(place), textStays_(textStays) {}
    std::string_view kept() const noexcept { return kept_; }

    void string(std::string_view run) { kept_ = textStays_ ? run : std::string_view(place_ = run); }
    void beginString() { place_.clear(); }
    void text(std::string_view run) { place_ += run; }
    void scalar(std::uint32_t scalar) { appendScalar(place_, scalar); }
    void endString() { kept_ = place_; }

private:
    std::string& place_;
    const bool textStays_;
    std::string_view kept_;
};

inline std::string_view JSONReader::readKey() {
    StringKeeper keeper(key_, source_ == nullptr);
    readKey(keeper);
    return keeper.kept();
}

inline std::string_view JSONReader::rawValue() {
    const bool isString = next() == '"';
    const char* const first = at_;
    JSONConsumer nobody;
    isString ? readString(nobody) : readValue(nobody);
    return since(first);
}

}  // namespace tidewell
