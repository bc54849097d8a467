// The XML form.
//
//   file    = misc* [doctype] misc* ( "<plist>" misc* dict misc* "</plist>" | dict ) misc*
//   dict    = "<dict>" ( misc* key misc* value )* misc* "</dict>"
//   array   = "<array>" ( misc* value )* misc* "</array>"
//   value   = dict | array | string | integer | real | true | false | date | data
//   text    = ( characters | "&lt;" ... | "&#N;" | "&#xN;" | "<![CDATA[" ... "]]>" | remark )*
//             in key, string and the other values but dict and array
//   misc    = white space | remark
//   remark  = "<!--" ... "-->" | "<?" ... "?>"
//
// "<x/>" stands for "<x></x>". Attributes are skipped unread, as the platform's own reader does. A document
// type is skipped too, and its entity declarations with it: only the five predefined entities exist, so
// nothing can be expanded without end.

#include "PropertyList/XML.hpp"

#include "Base/UTF8.hpp"
#include "PropertyList/Scanner.hpp"

#include <algorithm>
#include <utility>

namespace tidewell::propertylist {

namespace {

constexpr std::string_view space = " \t\r\n";
constexpr std::string_view textElements[] = {"string", "integer", "real", "true", "false", "date", "data"};
constexpr std::string_view declarations[] = {"!ATTLIST", "!ELEMENT", "!ENTITY", "!NOTATION"};
constexpr std::pair<std::string_view, char> entities[] = {
    {"lt;", '<'}, {"gt;", '>'}, {"amp;", '&'}, {"apos;", '\''}, {"quot;", '"'}};

struct Tag {
    std::string_view name;
    bool isEmpty;

    template <std::size_t count>
    bool isOneOf(const std::string_view (&names)[count]) const {
        return std::find(names, names + count, name) != names + count;
    }
};

class XMLReader : Scanner {
public:
    using Scanner::Scanner;

    std::optional<std::string> run() {
        skipMisc();
        if (take("<!DOCTYPE") && !skipDocumentType()) return std::nullopt;
        std::optional<Tag> tag = readTag();
        const bool isWrapped = tag && tag->name == "plist" && !tag->isEmpty;
        if (isWrapped) tag = readTag();
        if (!tag || tag->name != "dict" || !readContainer(*tag, 1)) return std::nullopt;
        skipMisc();
        if (isWrapped && !readClose("plist")) return std::nullopt;
        skipMisc();
        return rest_.empty() ? found_ : std::nullopt;
    }

private:
    /// The pairs or values in the dictionary or array that `tag` opened, and its closing tag.
    bool readContainer(const Tag& tag, int depth) {
        if (depth > propertyListNestingLimit) return false;
        const bool isDictionary = tag.name == "dict";
        while (!tag.isEmpty) {
            skipMisc();
            if (rest_.starts_with("</")) return readClose(tag.name);
            if (isDictionary && !readKey()) return false;
            const bool isWanted = isDictionary && depth == 1 && string_ == key_;
            if (!readValue(depth)) return false;
            if (isWanted) found_ = string_;
        }
        return true;
    }

    bool readKey() {
        const std::optional<Tag> tag = readTag();
        return tag && tag->name == "key" && readText(*tag);
    }

    bool readValue(int depth) {
        const std::optional<Tag> tag = readTag();
        if (!tag) return false;
        const bool isContainer = tag->name == "dict" || tag->name == "array";
        if (!isContainer && !tag->isOneOf(textElements)) return false;
        const bool isRead = isContainer ? readContainer(*tag, depth + 1) : readText(*tag);
        if (tag->name != "string") string_.reset();
        return isRead;
    }

    /// The text of the element that `tag` opened goes to `string_`; its closing tag is read too.
    bool readText(const Tag& tag) {
        string_.emplace();
        while (!tag.isEmpty) {
            *string_ += takeUntil("<&");
            if (take("&")) {
                if (!readReference()) return false;
            } else if (const auto characters = takeBetween("<![CDATA[", "]]>")) {
                *string_ += *characters;
            } else if (!takeRemark()) {
                return readClose(tag.name);
            }
        }
        return true;
    }

    /// What follows "&".
    bool readReference() {
        if (take("#")) {
            const unsigned scalar = takeNumber(take("x") ? 16 : 10);
            const bool isValid = scalar != 0 && scalar <= 0x10FFFF && (scalar & ~0x7FFu) != 0xD800;
            if (isValid) appendScalar(*string_, scalar);
            return isValid && take(";");
        }
        for (const auto& [name, meaning] : entities) {
            if (!take(name)) continue;
            *string_ += meaning;
            return true;
        }
        return false;
    }

    /// An opening or empty tag. Nothing inside it but its name counts.
    std::optional<Tag> readTag() {
        skipMisc();
        if (!take("<")) return std::nullopt;
        const std::string_view name = takeUntil(" \t\r\n/>");
        skipUntil("/<>\"'");
        const bool isEmpty = take("/");
        return take(">") ? std::optional(Tag{name, isEmpty}) : std::nullopt;
    }

    bool readClose(std::string_view name) {
        if (!take("</") || !take(name)) return false;
        takeWhile(space);
        return take(">");
    }

    bool takeRemark() { return takeBetween("<!--", "-->") || takeBetween("<?", "?>"); }

    void skipMisc() {
        do takeWhile(space);
        while (takeRemark());
    }

    /// Skips to the first of `marks`, which include the quotes; what is quoted does not count.
    void skipUntil(std::string_view marks) {
        do takeUntil(marks);
        while (takeBetween("\"", "\"") || takeBetween("'", "'"));
    }

    /// What follows "<!DOCTYPE".
    bool skipDocumentType() {
        skipUntil("[<>\"'");
        if (take("[")) {
            for (skipMisc(); !take("]"); skipMisc()) {
                const std::optional<Tag> tag = readTag();
                if (!tag || !tag->isOneOf(declarations)) return false;
            }
            takeWhile(space);
        }
        return take(">");
    }
};

}  // namespace

std::optional<std::string> stringInXML(std::string_view text, std::string_view key) {
    return XMLReader(text, key).run();
}

}  // namespace tidewell::propertylist
