// The text form, older than the other two.
//
//   file   = "{" pairs "}" | pairs          without braces in .strings files
//   pairs  = ( string [ "=" value ] ";" )*  a key alone stands for itself
//   value  = "{" pairs "}" | "(" [ value ( "," value )* [ "," ] ] ")" | "<" ( hex hex )* ">" | string
//   string = bare characters | '"' ... '"' | "'" ... "'"
//
// Between any two of these: white space, "//" to the end of the line, "/*" to "*/". Inside quotes a backslash
// begins an escape: \a \b \f \n \r \t \v, up to three octal digits for a byte in the NeXTSTEP character set,
// \U and up to four hexadecimal digits for a UTF-16 unit; before any other character it stands for nothing.

#include "PropertyListForms.hpp"
#include "UTF8.hpp"

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace tidewell::propertylist {

namespace {

// The upper half of the NeXTSTEP character set; its last two bytes mean nothing.
constexpr char16_t nextstepUpperHalf[128] = {
    0x00A0, 0x00C0, 0x00C1, 0x00C2, 0x00C3, 0x00C4, 0x00C5, 0x00C7,  // 80
    0x00C8, 0x00C9, 0x00CA, 0x00CB, 0x00CC, 0x00CD, 0x00CE, 0x00CF,  // 88
    0x00D0, 0x00D1, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D6, 0x00D9,  // 90
    0x00DA, 0x00DB, 0x00DC, 0x00DD, 0x00DE, 0x00B5, 0x00D7, 0x00F7,  // 98
    0x00A9, 0x00A1, 0x00A2, 0x00A3, 0x2044, 0x00A5, 0x0192, 0x00A7,  // A0
    0x00A4, 0x2019, 0x201C, 0x00AB, 0x2039, 0x203A, 0xFB01, 0xFB02,  // A8
    0x00AE, 0x2013, 0x2020, 0x2021, 0x00B7, 0x00A6, 0x00B6, 0x2022,  // B0
    0x201A, 0x201E, 0x201D, 0x00BB, 0x2026, 0x2030, 0x00AC, 0x00BF,  // B8
    0x00B9, 0x02CB, 0x00B4, 0x02C6, 0x02DC, 0x00AF, 0x02D8, 0x02D9,  // C0
    0x00A8, 0x00B2, 0x02DA, 0x00B8, 0x00B3, 0x02DD, 0x02DB, 0x02C7,  // C8
    0x2014, 0x00B1, 0x00BC, 0x00BD, 0x00BE, 0x00E0, 0x00E1, 0x00E2,  // D0
    0x00E3, 0x00E4, 0x00E5, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB,  // D8
    0x00EC, 0x00C6, 0x00ED, 0x00AA, 0x00EE, 0x00EF, 0x00F0, 0x00F1,  // E0
    0x0141, 0x00D8, 0x0152, 0x00BA, 0x00F2, 0x00F3, 0x00F4, 0x00F5,  // E8
    0x00F6, 0x00E6, 0x00F9, 0x00FA, 0x00FB, 0x0131, 0x00FC, 0x00FD,  // F0
    0x0142, 0x00F8, 0x0153, 0x00DF, 0x00FE, 0x00FF, 0xFFFD, 0xFFFD,  // F8
};

constexpr std::string_view bareCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_$/:.-";
constexpr std::string_view space = " \t\n\v\f\r";
constexpr std::string_view hexadecimalDigits = "0123456789abcdefABCDEF";
constexpr std::string_view octalDigits = "01234567";

bool isOneOf(char letter, std::string_view set) { return set.find(letter) != std::string_view::npos; }

/// How long the line or paragraph separator (U+2028, U+2029) is that `text` begins with; 0 when with none.
std::size_t separatorLength(std::string_view text) {
    return text.starts_with("\xE2\x80\xA8") || text.starts_with("\xE2\x80\xA9") ? 3 : 0;
}

/// One walk over one file. Every read... and skip... takes its part off the front of `rest_` or says no.
class TextWalk {
public:
    TextWalk(std::string_view text, std::string_view key) : rest_(text), key_(key) {}

    std::optional<std::string> run() {
        skipSpace();
        open_.push_back(take('{') ? '}' : endOfText);
        while (!open_.empty())
            if (!step()) return std::nullopt;
        skipSpace();
        return rest_.empty() && isFound_ ? std::optional(std::move(found_)) : std::nullopt;
    }

private:
    /// Reads what comes next inside the innermost open container: its end, the mark after an item, an item.
    bool step() {
        skipSpace();
        const char end = open_.back();
        // Only an array does without a mark after its last item.
        const bool mayEnd = !itemIsDone_ || end == ')';
        if (mayEnd && (end == endOfText ? rest_.empty() : take(end))) {
            open_.pop_back();
            itemIsDone_ = true;
            return true;
        }
        if (itemIsDone_) {
            itemIsDone_ = false;
            return take(end == ')' ? ',' : ';');
        }
        return end == ')' ? readValue(false) : readPair();
    }

    bool readPair() {
        if (!readString()) return false;
        const bool isWanted = open_.size() == 1 && string_ == key_;
        if (isWanted) isFound_ = false;
        skipSpace();
        if (take('=')) {
            skipSpace();
            return readValue(isWanted);
        }
        if (isWanted) remember();
        itemIsDone_ = true;
        return true;
    }

    bool readValue(bool isWanted) {
        if (take('{')) return enter('}');
        if (take('(')) return enter(')');
        itemIsDone_ = true;
        if (take('<')) return skipData();
        if (!readString()) return false;
        if (isWanted) remember();
        return true;
    }

    void remember() {
        found_ = string_;
        isFound_ = true;
    }

    bool enter(char end) {
        open_.push_back(end);
        return open_.size() <= nestingLimit;
    }

    bool skipData() {
        while (!take('>')) {
            if (const std::size_t length = separatorLength(rest_)) {
                rest_.remove_prefix(length);
            } else if (rest_.size() >= 2 && isOneOf(rest_[0], hexadecimalDigits) &&
                       isOneOf(rest_[1], hexadecimalDigits)) {
                rest_.remove_prefix(2);
            } else if (!rest_.empty() && isOneOf(rest_[0], " \t\r\n")) {
                rest_.remove_prefix(1);
            } else {
                return false;
            }
        }
        return true;
    }

    /// A quoted or bare string; its text goes to `string_`.
    bool readString() {
        string_.clear();
        if (take('"')) return readQuoted('"');
        if (take('\'')) return readQuoted('\'');
        const std::size_t length = std::min(rest_.find_first_not_of(bareCharacters), rest_.size());
        string_ = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return length > 0;
    }

    bool readQuoted(char quote) {
        while (!rest_.empty()) {
            if (take(quote)) return true;
            if (!take('\\')) {
                string_ += next();
            } else if (!rest_.empty()) {
                readEscape();
            }
        }
        return false;
    }

    void readEscape() {
        constexpr std::string_view letters = "abfnrtv";
        constexpr std::string_view meanings = "\a\b\f\n\r\t\v";
        if (isOneOf(rest_.front(), octalDigits)) {
            // \777 keeps eight bits.
            const auto byte = static_cast<std::uint8_t>(readNumber(octalDigits, 8, 3));
            appendScalar(string_, byte < 0x80 ? byte : nextstepUpperHalf[byte - 0x80]);
        } else if (take('U')) {
            appendUnit(string_, static_cast<char16_t>(readNumber(hexadecimalDigits, 16, 4)));
        } else {
            const char letter = next();
            const std::size_t index = letters.find(letter);
            string_ += index == std::string_view::npos ? letter : meanings[index];
        }
    }

    /// The number made of the digits that come next, `longest` of them at most; 0 when there are none.
    unsigned readNumber(std::string_view digits, unsigned base, std::size_t longest) {
        unsigned value = 0;
        for (; longest > 0 && !rest_.empty() && isOneOf(rest_.front(), digits); --longest) {
            const std::size_t index = digits.find(next());
            value = value * base + static_cast<unsigned>(index < 16 ? index : index - 6);  // A-F follow a-f
        }
        return value;
    }

    /// White space and comments. A "/*" comment that never ends reaches to the end of the file.
    void skipSpace() {
        while (!rest_.empty()) {
            if (const std::size_t length = separatorLength(rest_)) {
                rest_.remove_prefix(length);
            } else if (rest_.starts_with("//")) {
                while (!rest_.empty() && !isOneOf(rest_.front(), "\r\n") && separatorLength(rest_) == 0)
                    next();
            } else if (rest_.starts_with("/*")) {
                const std::size_t end = rest_.find("*/", 2);
                rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 2);
            } else if (isOneOf(rest_.front(), space)) {
                next();
            } else {
                return;
            }
        }
    }

    bool take(char letter) {
        if (!rest_.starts_with(letter)) return false;
        rest_.remove_prefix(1);
        return true;
    }

    /// Takes one byte off; there must be one.
    char next() {
        const char letter = rest_.front();
        rest_.remove_prefix(1);
        return letter;
    }

    static constexpr char endOfText = '\0';  ///< In place of a closing brace, in files without braces.

    std::string_view rest_;
    std::string_view key_;
    std::vector<char> open_;   ///< What will close the open containers, the innermost last.
    bool itemIsDone_ = false;  ///< The innermost container's last item is read, the mark after it is not.
    std::string string_;       ///< The string read last.
    bool isFound_ = false;
    std::string found_;  ///< The value asked for, once it has been found.
};

}  // namespace

std::optional<std::string> stringInTextForm(std::string_view text, std::string_view key) {
    return TextWalk(text, key).run();
}

}  // namespace tidewell::propertylist
