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

#include "PropertyList/Text.hpp"

#include "PropertyList/Scanner.hpp"
#include "PropertyList/UTF16.hpp"

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
constexpr std::string_view hexadecimalDigits = "0123456789abcdefABCDEF";

class TextReader : Scanner {
public:
    using Scanner::Scanner;

    std::optional<std::string> run() {
        const bool hasBraces = takeMark("{");
        if (!readPairs(1) || (hasBraces && !takeMark("}"))) return std::nullopt;
        skipSpace();
        return rest_.empty() ? found_ : std::nullopt;
    }

private:
    bool readPairs(int depth) {
        while (readString()) {
            const bool isWanted = depth == 1 && string_ == key_;
            if (takeMark("=") && !readValue(depth)) return false;
            if (isWanted) found_ = string_;
            if (!takeMark(";")) return false;
        }
        return true;
    }

    /// What follows the "(" of an array.
    bool readItems(int depth) {
        while (!takeMark(")")) {
            if (!readValue(depth)) return false;
            if (!takeMark(",")) return takeMark(")");
        }
        return true;
    }

    bool readValue(int depth) {
        if (readString()) return true;
        const bool isRead = take("<") ? skipData() : readContainer(depth + 1);
        string_.reset();
        return isRead;
    }

    bool readContainer(int depth) {
        if (depth > propertyListNestingLimit) return false;
        if (take("{")) return readPairs(depth) && takeMark("}");
        return take("(") && readItems(depth);
    }

    /// What follows the "<" of data.
    bool skipData() {
        while (!take(">")) {
            if (takeOneOf(hexadecimalDigits)) {
                if (!takeOneOf(hexadecimalDigits)) return false;
            } else if (!takeOneOf(" \t") && !takeLineEnd()) {
                return false;
            }
        }
        return true;
    }

    /// A quoted or bare string; its text goes to `string_`. A quoted string without an end reaches to the end
    /// of the file, which is then refused because no ";" follows.
    bool readString() {
        if (takeMark("\"")) return readQuoted("\"");
        if (take("'")) return readQuoted("'");
        string_ = takeWhile(bareCharacters);
        return !string_->empty();
    }

    bool readQuoted(std::string_view quote) {
        string_.emplace();
        while (!rest_.empty() && !take(quote)) {
            if (take("\\")) {
                readEscape();
            } else {
                *string_ += takeBytes(1);
            }
        }
        return true;
    }

    /// What follows a backslash.
    void readEscape() {
        constexpr std::string_view letters = "abfnrtv";
        constexpr std::string_view meanings = "\a\b\f\n\r\t\v";
        if (startsWithOneOf("01234567")) {
            const auto byte = static_cast<unsigned char>(takeNumber(8, 3));  // \777 keeps eight bits
            appendScalar(*string_, byte < 0x80 ? byte : nextstepUpperHalf[byte - 0x80]);
        } else if (take("U")) {
            appendUnit(*string_, static_cast<char16_t>(takeNumber(16, 4)));
        } else {
            const std::string_view letter = takeBytes(1);
            const std::size_t index = letters.find(letter);
            *string_ += index == std::string_view::npos ? letter : meanings.substr(index, 1);
        }
    }

    bool takeMark(std::string_view mark) {
        skipSpace();
        return take(mark);
    }

    /// White space and comments. A "/*" comment that never ends reaches to the end of the file.
    void skipSpace() {
        while (true) {
            if (take("//")) {
                while (!rest_.empty() && !takeLineEnd()) takeBytes(1);
            } else if (rest_.starts_with("/*")) {
                if (!takeBetween("/*", "*/")) rest_ = {};
            } else if (!takeOneOf(" \t\v\f") && !takeLineEnd()) {
                return;
            }
        }
    }

    /// The line and paragraph separators (U+2028, U+2029) end a line too.
    bool takeLineEnd() { return takeOneOf("\r\n") || take("\u2028") || take("\u2029"); }

    bool takeOneOf(std::string_view set) { return startsWithOneOf(set) && take(rest_.substr(0, 1)); }

    bool startsWithOneOf(std::string_view set) const { return rest_.substr(0, 1).find_first_of(set) == 0; }
};

}  // namespace

std::optional<std::string> stringInText(std::string_view text, std::string_view key) {
    return TextReader(text, key).run();
}

}  // namespace tidewell::propertylist
