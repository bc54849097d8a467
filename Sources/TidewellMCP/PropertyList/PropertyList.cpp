#include "PropertyList/PropertyList.hpp"

#include "Base/UTF8.hpp"
#include "PropertyList/Binary.hpp"
#include "PropertyList/Text.hpp"
#include "PropertyList/UTF16.hpp"
#include "PropertyList/XML.hpp"

#include <algorithm>
#include <cstddef>

namespace tidewell {

using namespace propertylist;

namespace {

bool isUTF8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = (text.front() & 0x80) == 0 ? 1 : multibyteLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

/// The name after encoding= in the XML declaration that `file` begins with, in lower case; "utf-8" if none.
std::string declaredEncoding(std::string_view file) {
    const std::string_view declaration = file.substr(0, file.find('>'));
    const std::size_t at = declaration.find("encoding");
    if (!file.starts_with("<?xml") || at == std::string_view::npos) return "utf-8";
    const std::size_t open = declaration.find_first_of("'\"", at);
    if (open == std::string_view::npos) return "";
    const std::size_t close = declaration.find(declaration[open], open + 1);
    if (close == std::string_view::npos) return "";
    std::string name(declaration.substr(open + 1, close - open - 1));
    for (char& letter : name)
        letter = static_cast<char>(letter | 0x20);  // digits and "-" have this bit already
    return name;
}

/// `file` in UTF-8 without its byte-order mark, which outranks encoding=; nothing when its bytes are wrong in
/// its character set or that set is unknown.
std::optional<std::string> asUTF8(std::string_view file) {
    std::string text(file);
    if (file.starts_with("\xFE\xFF") || file.starts_with("\xFF\xFE")) {
        if (file.size() % 2 != 0) return std::nullopt;
        text = fromUTF16(file.substr(2), file.starts_with('\xFE'));
    } else if (file.starts_with("\xEF\xBB\xBF")) {
        text = file.substr(3);
    } else if (const std::string encoding = declaredEncoding(file);
               encoding == "iso-8859-1" || encoding == "latin1") {
        text.clear();
        for (const char byte : file) appendScalar(text, static_cast<unsigned char>(byte));
    } else if (encoding == "us-ascii" || encoding == "ascii") {
        if (std::any_of(file.begin(), file.end(), [](char byte) { return (byte & 0x80) != 0; }))
            return std::nullopt;
    } else if (encoding != "utf-8" && encoding != "utf8") {
        return std::nullopt;
    }
    return isUTF8(text) ? std::optional(text) : std::nullopt;
}

/// Asks the reader of the one form that can answer. A broken XML file needs no second try as text: in the
/// text form, what begins with "<" is data, and so no dictionary.
std::optional<std::string> findString(std::string_view file, std::string_view key) {
    if (file.starts_with("bplist0") && file.size() > 7 && file[7] >= '0' && file[7] <= '9')
        return stringInBinary(file, key);
    std::optional<std::string> text = asUTF8(file);
    if (!text) return std::nullopt;
    if (text->ends_with('\0')) text->pop_back();  // the end of a C string, in a section made from one
    const std::size_t start = text->find_first_not_of(" \t\r\n");
    const bool isXML = start != std::string::npos && (*text)[start] == '<';
    return isXML ? stringInXML(*text, key) : stringInText(*text, key);
}

}  // namespace

std::optional<std::string> stringInPropertyList(std::string_view file, std::string_view key) {
    std::optional<std::string> found = findString(file, key);
    return found && isUTF8(*found) ? found : std::nullopt;
}

}  // namespace tidewell
