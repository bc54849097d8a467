#include "JSONReader.hpp"

#include "JSONNode.hpp"
#include "JSONText.hpp"
#include "UTF8.hpp"

#include <array>
#include <cmath>
#include <cstdlib>
#include <span>
#include <vector>

namespace tidewell {

JSONError::JSONError(const char* reason, std::size_t offset)
    : description_("invalid JSON at byte " + std::to_string(offset) + ": " + reason), offset_(offset) {}

std::optional<std::int64_t> exactInteger(double value) noexcept {
    // 2^63 does not fit. Its negative would, but as a double it may stand for any of a thousand integers
    // around it, most of which do not; the reader never needs a double for the one that does.
    constexpr double limit = 9223372036854775808.0;
    if (!(value > -limit && value < limit) || value != std::trunc(value)) return std::nullopt;
    return static_cast<std::int64_t>(value);
}

namespace {

constexpr bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

/// One reading of one text. Finished values wait in `pending_` until the container around them closes; an
/// object's keys and values wait there by turns.
class Reader {
public:
    explicit Reader(std::string_view text)
        : begin_(text.data()), at_(begin_), end_(begin_ + text.size()), arena_(text.size()) {}
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader() {
        // Kept for the next reading, unless it became unusually large.
        constexpr std::size_t keptValues = 1024;
        pending_.clear();
        if (pending_.capacity() > keptValues) std::vector<JSONValue>().swap(pending_);
    }

    JSONValue read() {
        do {
            if (startValue()) continue;
            while (nesting_ > 0 && !startNextElement()) closeContainer();
        } while (nesting_ > 0);
        skipBlanks();
        if (at_ != end_) fail("expected the end of the text");
        return std::move(pending_.front());
    }

private:
    static std::vector<JSONValue>& usualPlace() {
        thread_local std::vector<JSONValue> place;
        return place;
    }

    struct Container {
        std::size_t firstPending;
        bool isObject;
    };

    /// Reads a scalar or an empty container to its end; or opens a container up to its first value, and
    /// returns true.
    bool startValue() {
        skipBlanks();
        switch (peek()) {
        case '{': return openContainer(true);
        case '[': return openContainer(false);
        case '"': pending_.push_back(readString()); return false;
        case 't': pending_.push_back(readWord("true", true)); return false;
        case 'f': pending_.push_back(readWord("false", false)); return false;
        case 'n': pending_.push_back(readWord("null", nullptr)); return false;
        default: pending_.push_back(readNumber()); return false;
        }
    }

    bool openContainer(bool isObject) {
        if (nesting_ == maximumNesting) fail("nested too deeply");
        ++at_;
        open_[nesting_++] = {pending_.size(), isObject};
        skipBlanks();
        if (at_ != end_ && *at_ == (isObject ? '}' : ']')) {
            closeContainer();
            // An empty container is a finished value like a scalar, inside whatever is open around it.
            return false;
        }
        if (isObject) readKey();
        return true;
    }

    /// After a value inside a container: true when another one follows, false at the container's end.
    bool startNextElement() {
        const bool isObject = open_[nesting_ - 1].isObject;
        skipBlanks();
        const char next = peek();
        if (next == (isObject ? '}' : ']')) return false;
        if (next != ',') fail(isObject ? "expected ',' or '}'" : "expected ',' or ']'");
        ++at_;
        if (isObject) readKey();
        return true;
    }

    /// At the closing bracket: the waiting values become one.
    void closeContainer() {
        ++at_;
        const Container closed = open_[--nesting_];
        const auto content = std::span(pending_).subspan(closed.firstPending);
        JSONValue value =
            closed.isObject ? JSONValue::object(content, &arena_) : JSONValue::array(content, &arena_);
        pending_.resize(closed.firstPending);
        pending_.push_back(std::move(value));
    }

    void readKey() {
        skipBlanks();
        if (peek() != '"') fail("expected a string as key");
        pending_.push_back(readString());
        skipBlanks();
        if (peek() != ':') fail("expected ':'");
        ++at_;
    }

    JSONValue readString() {
        const char* const first = ++at_;
        skipLiteralText();
        if (*at_ == '"') return JSONValue({first, static_cast<std::size_t>(at_++ - first)}, true, &arena_);
        std::string text(first, at_);
        while (*at_ != '"') {
            readEscape(text);
            const char* const run = at_;
            skipLiteralText();
            text.append(run, at_);
        }
        ++at_;
        return JSONValue(text, false, &arena_);
    }

    /// Up to the next quote or backslash, through plain bytes and well-formed sequences outside ASCII.
    void skipLiteralText() {
        for (;;) {
            at_ = skipPlain(at_, end_);
            const char next = peek();
            if (next == '"' || next == '\\') return;
            if (static_cast<unsigned char>(next) < 0x20) fail("control character inside a string");
            const std::size_t length = multibyteLength({at_, static_cast<std::size_t>(end_ - at_)});
            if (length == 0) fail("invalid UTF-8");
            at_ += length;
        }
    }

    void readEscape(std::string& text) {
        ++at_;
        const char letter = peek();
        ++at_;
        switch (letter) {
        case '"':
        case '\\':
        case '/': text.push_back(letter); return;
        case 'b': text.push_back('\b'); return;
        case 'f': text.push_back('\f'); return;
        case 'n': text.push_back('\n'); return;
        case 'r': text.push_back('\r'); return;
        case 't': text.push_back('\t'); return;
        case 'u': return appendScalar(text, readEscapedScalar());
        default: --at_; fail("unknown escape");
        }
    }

    std::uint32_t readEscapedScalar() {
        const std::uint32_t unit = readFourHexDigits();
        if (unit < 0xD800 || unit > 0xDFFF) return unit;
        if (unit > 0xDBFF || end_ - at_ < 2 || at_[0] != '\\' || at_[1] != 'u') fail("unpaired surrogate");
        at_ += 2;
        const std::uint32_t low = readFourHexDigits();
        if (low < 0xDC00 || low > 0xDFFF) fail("unpaired surrogate");
        return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }

    std::uint32_t readFourHexDigits() {
        std::uint32_t value = 0;
        for (int digit = 0; digit < 4; ++digit, ++at_) {
            const char byte = peek();
            const char lower = static_cast<char>(byte | 0x20);
            if (isDigit(byte)) {
                value = value * 16 + static_cast<std::uint32_t>(byte - '0');
            } else if (lower >= 'a' && lower <= 'f') {
                value = value * 16 + static_cast<std::uint32_t>(lower - 'a' + 10);
            } else {
                fail("expected four hexadecimal digits");
            }
        }
        return value;
    }

    JSONValue readWord(std::string_view word, JSONValue value) {
        if (std::string_view(at_, static_cast<std::size_t>(end_ - at_)).substr(0, word.size()) != word) {
            fail("expected a value");
        }
        at_ += word.size();
        return value;
    }

    /// What a number token says: significant digits as one integer, times a power of ten. Zeros at the end
    /// wait, so that 1000, 1e3 and 1000.0 all have one digit, and a whole number is exact however it was
    /// written.
    struct Decimal {
        std::uint64_t digits = 0;  // exact while `count` is at most `exactCount`
        std::int64_t count = 0;    // zeros before the first digit not counted
        std::int64_t zeros = 0;    // behind the last other digit
        std::int64_t exponent = 0;
        bool isNegative = false;

        static constexpr std::int64_t exactCount = 19;  // nineteen nines still fit 64 bits unsigned
        void add(char digit) noexcept {
            if (digit == '0') {
                if (count != 0) ++zeros;
                return;
            }
            for (count += zeros + 1; zeros > 0; --zeros) digits *= 10;  // wraps only where it is not read
            digits = digits * 10 + static_cast<std::uint64_t>(digit - '0');
        }

        /// The number itself, when it is whole and within 64 bits.
        std::optional<std::int64_t> whole() const noexcept {
            constexpr std::int64_t largestPower = 18;  // 10^19 does not fit
            if (count > exactCount || exponent < 0 || (count != 0 && exponent > largestPower))
                return std::nullopt;
            std::uint64_t magnitude = digits;
            for (std::int64_t power = 0; count != 0 && power < exponent; ++power) {
                if (magnitude > UINT64_MAX / 10) return std::nullopt;
                magnitude *= 10;
            }
            const std::uint64_t most = static_cast<std::uint64_t>(INT64_MAX) + (isNegative ? 1 : 0);
            if (magnitude > most) return std::nullopt;
            return static_cast<std::int64_t>(isNegative ? 0 - magnitude : magnitude);
        }
    };

    JSONValue readNumber() {
        const char* const first = at_;
        Decimal decimal;
        if (peek() == '-') {
            decimal.isNegative = true;
            ++at_;
        }
        if (at_ == end_ || !isDigit(*at_)) fail("expected a value");
        if (*at_ == '0') {
            ++at_;
        } else {
            readDigits(decimal);
        }
        if (at_ != end_ && *at_ == '.') {
            ++at_;
            decimal.exponent -= readDigits(decimal);
        }
        if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
            decimal.exponent += readExponent();
        }
        decimal.exponent += decimal.zeros;
        return numberValue(decimal, {first, static_cast<std::size_t>(at_ - first)});
    }

    /// At least one digit; returns how many there were.
    std::int64_t readDigits(Decimal& decimal) {
        const char* const first = at_;
        for (; at_ != end_ && isDigit(*at_); ++at_) decimal.add(*at_);
        if (at_ == first) fail("expected a digit");
        return at_ - first;
    }

    std::int64_t readExponent() {
        constexpr std::int64_t cap = 1'000'000'000'000'000;  // longer than any text, far from overflow
        ++at_;
        const bool isNegative = peek() == '-';
        if (isNegative || *at_ == '+') ++at_;
        if (at_ == end_ || !isDigit(*at_)) fail("expected a digit");
        std::int64_t exponent = 0;
        for (; at_ != end_ && isDigit(*at_); ++at_) {
            if (exponent < cap) exponent = exponent * 10 + (*at_ - '0');
        }
        return isNegative ? -exponent : exponent;
    }

    JSONValue numberValue(const Decimal& decimal, std::string_view token) {
        if (const auto whole = decimal.whole()) return *whole;
        const double value = nearestDouble(decimal, token);
        if (!std::isfinite(value)) {
            at_ = token.data();
            fail("number out of range");
        }
        if (const auto whole = exactInteger(value)) return *whole;  // 2.00000000000000000001 rounds to 2
        return value;
    }

    /// Up to fifteen digits and a power of ten up to 22 are exact as doubles, so one multiplication or
    /// division rounds correctly (Clinger 1990); that is nearly every number in practice. The C library does
    /// the rest: its decimal point is '.', because this program never sets a locale.
    static double nearestDouble(const Decimal& decimal, std::string_view token) {
        constexpr std::array<double, 23> powersOfTen = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                        1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                        1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
        constexpr std::int64_t exactDigits = 15;
        constexpr std::int64_t exactPower = 22;
        if (decimal.count <= exactDigits && std::abs(decimal.exponent) <= exactPower) {
            const auto digits = static_cast<double>(decimal.digits);
            const double power = powersOfTen[static_cast<std::size_t>(std::abs(decimal.exponent))];
            const double magnitude = decimal.exponent < 0 ? digits / power : digits * power;
            return decimal.isNegative ? -magnitude : magnitude;
        }
        return std::strtod(std::string(token).c_str(), nullptr);
    }

    void skipBlanks() noexcept {
        while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
    }

    char peek() const {
        if (at_ == end_) fail("unexpected end of the text");
        return *at_;
    }

    [[noreturn]] void fail(const char* reason) const {
        throw JSONError(reason, static_cast<std::size_t>(at_ - begin_));
    }

    const char* begin_;
    const char* at_;
    const char* end_;
    NodeArena arena_;
    std::vector<JSONValue>& pending_ = usualPlace();
    std::size_t nesting_ = 0;
    std::array<Container, maximumNesting> open_;  // the first `nesting_` of them; left uninitialised
};

}  // namespace

JSONValue readJSON(std::string_view text) { return Reader(text).read(); }

}  // namespace tidewell
