#include "JSON/JSONReader.hpp"

#include "Base/UTF8.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

namespace tidewell {

namespace {

constexpr bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

constexpr bool mayBeInNumber(char byte) noexcept {
    return isDigit(byte) || byte == '-' || byte == '+' || byte == '.' || byte == 'e' || byte == 'E';
}

bool isOutOfRange(const NumberToken& token) {
    const JSONNumber value = valueOf(token);
    const double* const rounded = std::get_if<double>(&value);
    return rounded != nullptr && !std::isfinite(*rounded);
}

}  // namespace

const char* skipVerbatimBeyondASCII(const char* at, const char* end) noexcept {
    for (;;) {
        const char* const start = at;
        while (const auto length = multibyteLength({at, static_cast<std::size_t>(end - at)})) at += length;
        at = skipPlain(at, end);
        if (at == start) return at;
    }
}

JSONError::JSONError(const char* reason, std::size_t offset)
    : description_("invalid JSON at byte " + std::to_string(offset) + ": " + reason), offset_(offset) {}

void JSONReader::skipValue() {
    JSONConsumer nobody;
    readValue(nobody);
}

void JSONReader::readEnd() {
    skipBlanks();
    if (at_ != end_) fail("expected the end of the text");
}

void JSONReader::skipBlanks() {
    do {
        while (at_ != end_ && isBlank(*at_)) ++at_;
    } while (at_ == end_ && refill(at_));
}

bool JSONReader::open(bool isObject) {
    if (nesting_ == maximumNesting) fail("nested too deeply");
    ++at_;
    isObject_[nesting_++] = isObject;
    if (next() == (isObject ? '}' : ']')) {
        ++at_;
        --nesting_;
        return false;
    }
    if (isObject) expectKey();
    return true;
}

void JSONReader::expectKey() {
    if (next() != '"') fail("expected a string as key");
}

std::optional<std::string> JSONReader::readString() {
    std::string place;
    const auto string = readString(place);
    return string ? std::optional<std::string>(*string) : std::nullopt;
}

std::optional<std::string_view> JSONReader::readString(std::string& place) {
    if (next() != '"') {
        skipValue();
        return std::nullopt;
    }
    StringKeeper keeper(place, source_ == nullptr);
    readString(keeper);
    return keeper.kept();
}

/// This byte is not allowed in a string, unless the piece ends here, possibly inside a character.
void JSONReader::getMoreOfString() {
    constexpr std::ptrdiff_t longestCharacter = 4;
    if (at_ != end_ && static_cast<unsigned char>(*at_) < 0x20) fail("control character inside a string");
    if (end_ - at_ < longestCharacter && refill(at_)) return;
    fail(at_ == end_ ? unexpectedEnd : "invalid UTF-8");
}

std::uint32_t JSONReader::readEscape() {
    constexpr std::size_t longestEscape = sizeof R"(\ud834\udd1e)" - 1;
    readyFor(longestEscape);
    ++at_;
    if (at_ == end_) fail(unexpectedEnd);
    const char letter = *at_++;
    switch (letter) {
    case '"':
    case '\\':
    case '/': return static_cast<unsigned char>(letter);
    case 'b': return '\b';
    case 'f': return '\f';
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case 'u': break;
    default: --at_; fail("unknown escape");
    }
    const std::uint32_t unit = readFourHexDigits();
    if (unit < 0xD800 || unit > 0xDFFF) return unit;
    if (unit > 0xDBFF || end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') fail("unpaired surrogate");
    at_ += 2;
    const std::uint32_t low = readFourHexDigits();
    if (low < 0xDC00 || low > 0xDFFF) fail("unpaired surrogate");
    return 0x10000 + ((unit & 0x3FF) << 10) + (low & 0x3FF);
}

std::uint32_t JSONReader::readFourHexDigits() {
    constexpr std::ptrdiff_t four = 4;
    const char* const first = at_;
    std::uint32_t value = 0;
    at_ = std::from_chars(first, first + std::min(four, end_ - first), value, 16).ptr;
    if (at_ - first == four) return value;
    fail(at_ == end_ ? unexpectedEnd : "expected four hexadecimal digits");
}

void JSONReader::readWord(std::string_view word) {
    readyFor(word.size());
    if (!std::string_view(at_, end_).starts_with(word)) fail("expected a value");
    at_ += word.size();
}

NumberToken JSONReader::readNumber() {
    if (at_ >= tail_) getWholeNumber();
    const char* const first = at_;
    const auto skipDigits = [&](const char* otherwise) {
        const char* last = at_;
        while (last != end_ && isDigit(*last)) ++last;
        if (last == std::exchange(at_, last)) fail(otherwise);
    };

    NumberToken token;
    if (isAt('-')) ++at_;
    if (isAt('0')) {
        ++at_;
    } else {
        skipDigits("expected a value");
    }
    if (isAt('.')) {
        ++at_;
        token.hasPoint = true;
        skipDigits("expected a digit");
    }
    if (isAt('e') || isAt('E')) {
        ++at_;
        token.hasExponent = true;
        if (at_ == end_) fail(unexpectedEnd);
        if (isAt('-') || isAt('+')) ++at_;
        skipDigits("expected a digit");
    }
    token.text = since(first);

    const bool isSurelyInRange = token.text.size() <= 200 && !token.hasExponent;
    if (!isSurelyInRange && isOutOfRange(token)) {
        at_ = first;
        fail("number out of range");
    }
    return token;
}

/// A number may continue in the next piece: pieces are joined until it ends.
void JSONReader::getWholeNumber() {
    auto length = std::ptrdiff_t{0};
    do {
        while (at_ + length != end_ && mayBeInNumber(at_[length])) ++length;
    } while (at_ + length == end_ && refill(at_));
}

bool JSONReader::refillFromSource(const char* keepFrom) {
    const auto kept = static_cast<std::size_t>(end_ - keepFrom);
    const auto ahead = at_ - keepFrom;
    before_ += static_cast<std::size_t>(keepFrom - begin_);
    const std::string_view piece = source_->next({keepFrom, kept});
    begin_ = piece.data();
    end_ = begin_ + piece.size();
    at_ = begin_ + ahead;
    for (tail_ = end_; tail_ != begin_ && mayBeInNumber(tail_[-1]);) --tail_;
    return piece.size() > kept;
}

void JSONReader::fail(const char* reason) const {
    throw JSONError(reason, before_ + static_cast<std::size_t>(at_ - begin_));
}

}  // namespace tidewell
