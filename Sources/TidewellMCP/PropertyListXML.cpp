// The XML form.
//
//   file    = misc* [doctype] misc* ( "<plist>" misc* dict misc* "</plist>" | dict ) misc*
//   dict    = "<dict>" ( misc* key misc* value )* misc* "</dict>"
//   array   = "<array>" ( misc* value )* misc* "</array>"
//   value   = dict | array | string | integer | real | true | false | date | data
//   text    = ( characters | "&lt;" ... | "&#N;" | "&#xN;" | "<![CDATA[" ... "]]>" )*   in key, string, ...
//   misc    = white space | "<!--" ... "-->" | "<?" ... "?>"
//
// "<x/>" stands for "<x></x>". Attributes are skipped unread, as the platform's own reader does. A document
// type is skipped too, and its entity declarations with it: only the five predefined entities exist, so
// nothing can be expanded without end.

#include "PropertyListForms.hpp"
#include "UTF8.hpp"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>
#include <vector>

namespace tidewell::propertylist {

namespace {

constexpr std::string_view space = " \t\r\n";

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

bool take(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

/// Drops the digits that `text` begins with and tells how many they were.
std::size_t takeDigits(std::string_view& text) {
    const auto end = std::find_if_not(text.begin(), text.end(), isDigit);
    const auto count = static_cast<std::size_t>(end - text.begin());
    text.remove_prefix(count);
    return count;
}

std::string_view trimmed(std::string_view text) {
    const std::size_t start = text.find_first_not_of(space);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(space) - start + 1);
}

/// All of `text` as an unsigned number; nothing when it is empty, has other characters or does not fit.
std::optional<std::uint64_t> number(std::string_view text, int base) {
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc() || stop != end) return std::nullopt;
    return value;
}

// What the elements with text may hold, each judged by its whole text.

bool isAnything(std::string_view) { return true; }

bool isNothing(std::string_view text) { return text.empty(); }

/// A signed or unsigned 64-bit number, decimal or hexadecimal.
bool isInteger(std::string_view text) {
    text = trimmed(text);
    const bool isNegative = take(text, "-");
    if (!isNegative) take(text, "+");
    const bool isHexadecimal = take(text, "0x") || take(text, "0X");
    const std::optional<std::uint64_t> value = number(text, isHexadecimal ? 16 : 10);
    return value && (!isNegative || *value <= std::uint64_t{1} << 63);
}

bool isReal(std::string_view text) {
    text = trimmed(text);
    if (!take(text, "-")) take(text, "+");
    std::string word(text.substr(0, 9));
    for (char& letter : word) letter = static_cast<char>(letter | 0x20);
    if (word == "nan" || word == "inf" || word == "infinity") return true;

    std::size_t digits = takeDigits(text);
    if (take(text, ".")) digits += takeDigits(text);
    if (digits == 0) return false;
    if (take(text, "e") || take(text, "E")) {
        if (!take(text, "-")) take(text, "+");
        if (takeDigits(text) == 0) return false;
    }
    return text.empty();
}

/// 2024-05-31T12:00:00Z; the year may have any length. Only the form is checked, as on the platform.
bool isDate(std::string_view text) {
    constexpr std::string_view form = "-00-00T00:00:00Z";
    take(text, "-");
    if (takeDigits(text) == 0) return false;
    const auto fits = [](char letter, char slot) { return slot == '0' ? isDigit(letter) : letter == slot; };
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), fits);
}

/// Base 64 in groups of four, white space anywhere.
bool isBase64(std::string_view text) {
    std::size_t digits = 0;
    std::size_t padding = 0;
    for (const char letter : text) {
        if (space.find(letter) != std::string_view::npos) continue;
        const auto lower = static_cast<char>(letter | 0x20);
        const bool isLetter = lower >= 'a' && lower <= 'z';
        if (letter == '=') {
            ++padding;
        } else if (padding == 0 && (isLetter || isDigit(letter) || letter == '+' || letter == '/')) {
            ++digits;
        } else {
            return false;
        }
    }
    return padding <= 2 && (digits + padding) % 4 == 0;
}

struct ElementRow {
    std::string_view name;
    bool (*mayHold)(std::string_view text);
};

constexpr ElementRow elementRows[] = {
    {"string", isAnything}, {"integer", isInteger}, {"real", isReal},   {"true", isNothing},
    {"false", isNothing},   {"date", isDate},       {"data", isBase64},
};

struct EntityRow {
    std::string_view name;
    char meaning;
};

constexpr EntityRow entityRows[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}};

struct Tag {
    std::string_view name;
    bool isEmpty = false;
};

/// One walk over one file. Every read... and skip... takes its part off the front of `rest_` or says no.
class XMLWalk {
public:
    XMLWalk(std::string_view text, std::string_view key) : rest_(text), key_(key) {}

    std::optional<std::string> run() {
        if (!skipProlog()) return std::nullopt;
        std::optional<Tag> tag = readTag();
        const bool isWrapped = tag && tag->name == "plist" && !tag->isEmpty;
        if (isWrapped) tag = skipMisc() ? readTag() : std::nullopt;
        if (!tag || tag->name != "dict") return std::nullopt;

        if (!tag->isEmpty) open_.push_back(tag->name);
        while (!open_.empty())
            if (!step()) return std::nullopt;
        if (isWrapped && !(skipMisc() && readClose("plist"))) return std::nullopt;
        return skipMisc() && rest_.empty() && isFound_ ? std::optional(std::move(found_)) : std::nullopt;
    }

private:
    /// Reads what comes next inside the innermost open container: its end, a key or a value.
    bool step() {
        if (!skipMisc()) return false;
        const bool inDictionary = open_.back() == "dict";
        if (rest_.starts_with("</")) {
            if (valueIsDue_ || !readClose(open_.back())) return false;
            open_.pop_back();
            return true;
        }
        const std::optional<Tag> tag = readTag();
        if (!tag) return false;
        if (inDictionary && !valueIsDue_) return tag->name == "key" && readKey(*tag);
        valueIsDue_ = false;
        return readValue(*tag);
    }

    bool readKey(const Tag& tag) {
        if (!readText(tag)) return false;
        valueIsDue_ = true;
        isWanted_ = open_.size() == 1 && text_ == key_;
        if (isWanted_) isFound_ = false;
        return true;
    }

    bool readValue(const Tag& tag) {
        if (tag.name == "dict" || tag.name == "array") {
            if (open_.size() == nestingLimit) return false;
            if (!tag.isEmpty) open_.push_back(tag.name);
            return true;
        }
        const auto* const row =
            std::find_if(std::begin(elementRows), std::end(elementRows),
                         [&](const ElementRow& element) { return element.name == tag.name; });
        if (row == std::end(elementRows) || !readText(tag) || !row->mayHold(text_)) return false;
        if (isWanted_ && open_.size() == 1 && tag.name == "string") {
            found_ = text_;
            isFound_ = true;
        }
        return true;
    }

    /// The text of the element that `tag` opened goes to `text_`, its closing tag is read too.
    bool readText(const Tag& tag) {
        text_.clear();
        if (tag.isEmpty) return true;
        while (true) {
            const std::size_t plain = std::min(rest_.find_first_of("<&"), rest_.size());
            text_ += rest_.substr(0, plain);
            rest_.remove_prefix(plain);
            if (take(rest_, "<![CDATA[")) {
                const std::size_t end = rest_.find("]]>");
                if (end == std::string_view::npos) return false;
                text_ += rest_.substr(0, end);
                rest_.remove_prefix(end + 3);
            } else if (take(rest_, "&")) {
                if (!readReference()) return false;
            } else {
                return readClose(tag.name);
            }
        }
    }

    /// What follows "&". The search for ";" is bounded, or a file of "&" alone would cost quadratic time.
    bool readReference() {
        constexpr std::size_t longestReference = 32;
        const std::size_t end = rest_.substr(0, longestReference).find(';');
        if (end == std::string_view::npos) return false;
        std::string_view name = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        if (take(name, "#")) {
            const int base = take(name, "x") ? 16 : 10;
            const std::optional<std::uint64_t> point = number(name, base);
            const bool isScalar = point && *point != 0 && *point <= 0x10FFFF && (*point & ~0x7FFu) != 0xD800;
            if (isScalar) appendScalar(text_, static_cast<std::uint32_t>(*point));
            return isScalar;
        }
        for (const EntityRow& entity : entityRows)
            if (entity.name == name) {
                text_ += entity.meaning;
                return true;
            }
        return false;
    }

    /// An opening or empty tag. Nothing inside it but its name counts.
    std::optional<Tag> readTag() {
        const std::size_t end = rest_.find_first_of("<>", 1);
        if (!rest_.starts_with('<') || end == std::string_view::npos || rest_[end] == '<')
            return std::nullopt;
        std::string_view inside = rest_.substr(1, end - 1);
        rest_.remove_prefix(end + 1);
        const bool isEmpty = inside.ends_with('/');
        if (isEmpty) inside.remove_suffix(1);
        return Tag{inside.substr(0, inside.find_first_of(space)), isEmpty};
    }

    bool readClose(std::string_view name) {
        if (!take(rest_, "</") || !take(rest_, name)) return false;
        skipSpace();
        return take(rest_, ">");
    }

    void skipSpace() { rest_.remove_prefix(std::min(rest_.find_first_not_of(space), rest_.size())); }

    bool skipPast(std::string_view end) {
        const std::size_t at = rest_.find(end);
        if (at == std::string_view::npos) return false;
        rest_.remove_prefix(at + end.size());
        return true;
    }

    /// White space, comments and processing instructions; false when one of them does not end.
    bool skipMisc() {
        while (true) {
            skipSpace();
            if (take(rest_, "<!--")) {
                if (!skipPast("-->")) return false;
            } else if (take(rest_, "<?")) {
                if (!skipPast("?>")) return false;
            } else {
                return true;
            }
        }
    }

    bool skipProlog() {
        if (!skipMisc()) return false;
        if (!take(rest_, "<!DOCTYPE")) return true;
        const std::size_t end = rest_.find_first_of("[>");
        if (end == std::string_view::npos) return false;
        const bool hasDeclarations = rest_[end] == '[';
        rest_.remove_prefix(end + 1);
        return (!hasDeclarations || skipDeclarations()) && skipMisc();
    }

    /// The declarations between "[" and "]" of a document type, up to its ">".
    bool skipDeclarations() {
        while (skipMisc() && take(rest_, "<!"))
            if (!skipPast(">")) return false;
        if (!take(rest_, "]")) return false;
        skipSpace();
        return take(rest_, ">");
    }

    std::string_view rest_;
    std::string_view key_;
    std::vector<std::string_view> open_;  ///< The names of the open containers, the innermost last.
    bool valueIsDue_ = false;             ///< A key of the innermost dictionary waits for its value.
    bool isWanted_ = false;               ///< The last key of the top-level dictionary is the one asked for.
    std::string text_;                    ///< The text of the element read last.
    bool isFound_ = false;
    std::string found_;  ///< The value asked for, once it has been found.
};

}  // namespace

std::optional<std::string> stringInXMLForm(std::string_view text, std::string_view key) {
    return XMLWalk(text, key).run();
}

}  // namespace tidewell::propertylist
