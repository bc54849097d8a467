#include "PropertyList.hpp"

#include "PropertyListForms.hpp"
#include "UTF8.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace tidewell {

namespace propertylist {

bool isUTF8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t length = (bytes.front() & 0x80) == 0 ? 1 : multibyteLength(bytes);
        if (length == 0) return false;
        bytes.remove_prefix(length);
    }
    return true;
}

void appendUnit(std::string& out, char16_t unit) {
    const std::size_t start = out.size() - std::min<std::size_t>(out.size(), 3);
    const auto byte = [&](std::size_t index) { return static_cast<std::uint8_t>(out[start + index]); };
    const bool followsHigh = out.size() >= 3 && byte(0) == 0xED && (byte(1) & 0xF0) == 0xA0;
    if (!followsHigh || (unit & 0xFC00) != 0xDC00) return appendScalar(out, unit);
    const std::uint32_t high = (byte(1) & 0x0Fu) << 6 | (byte(2) & 0x3Fu);
    out.erase(start);
    appendScalar(out, 0x10000u + (high << 10) + (unit & 0x3FFu));
}

}  // namespace propertylist

namespace {

using namespace propertylist;

constexpr std::string_view xmlSpace = " \t\r\n";

/// The name after encoding= in the XML declaration that `file` begins with, in lower case; "utf-8" if none.
std::string declaredEncoding(std::string_view file) {
    std::string_view declaration = file.substr(0, file.find("?>"));
    const std::size_t at = declaration.find("encoding");
    if (!file.starts_with("<?xml") || at == std::string_view::npos) return "utf-8";
    declaration.remove_prefix(at + std::string_view("encoding").size());

    const std::size_t open = declaration.find_first_not_of("= \t\r\n");
    if (open == std::string_view::npos) return "";
    const std::size_t close = declaration.find(declaration[open], open + 1);
    if (close == std::string_view::npos) return "";
    std::string name(declaration.substr(open + 1, close - open - 1));
    for (char& letter : name)
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    return name;
}

std::string fromUTF16(std::string_view bytes, bool isBigEndian) {
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t index = 0; index + 1 < bytes.size(); index += 2) {
        const auto first = static_cast<std::uint8_t>(bytes[index]);
        const auto second = static_cast<std::uint8_t>(bytes[index + 1]);
        appendUnit(text, static_cast<char16_t>(isBigEndian ? first << 8 | second : second << 8 | first));
    }
    return text;
}

std::string fromLatin1(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    for (const char byte : bytes) appendScalar(text, static_cast<std::uint8_t>(byte));
    return text;
}

/// The text of `file` in UTF-8 without its byte-order mark, nothing when its bytes are wrong in its character
/// set or that set is unknown. A byte-order mark outranks encoding=. The view points into `file` or into
/// `storage`.
std::optional<std::string_view> asUTF8(std::string_view file, std::string& storage) {
    std::string_view text = file;
    if (file.starts_with("\xFE\xFF") || file.starts_with("\xFF\xFE")) {
        if (file.size() % 2 != 0) return std::nullopt;
        text = storage = fromUTF16(file.substr(2), file.starts_with('\xFE'));
    } else if (file.starts_with("\xEF\xBB\xBF")) {
        text.remove_prefix(3);
    } else if (const std::string encoding = declaredEncoding(file);
               encoding == "iso-8859-1" || encoding == "latin1") {
        text = storage = fromLatin1(file);
    } else if (encoding == "us-ascii" || encoding == "ascii") {
        if (std::any_of(file.begin(), file.end(), [](char byte) { return (byte & 0x80) != 0; }))
            return std::nullopt;
    } else if (encoding != "utf-8" && encoding != "utf8") {
        return std::nullopt;
    }
    return isUTF8(text) ? std::optional(text) : std::nullopt;
}

bool isBinary(std::string_view file) {
    return file.starts_with("bplist0") && file.size() > 7 && file[7] >= '0' && file[7] <= '9';
}

/// Asks the reader of the one form that can answer. A broken XML file needs no second try as text: in the
/// text form, what begins with "<" is data, and so no dictionary.
std::optional<std::string> findString(std::string_view file, std::string_view key) {
    if (isBinary(file)) return stringInBinaryForm(file, key);
    std::string storage;
    const std::optional<std::string_view> text = asUTF8(file, storage);
    if (!text) return std::nullopt;
    const std::size_t start = text->find_first_not_of(xmlSpace);
    const bool isXML = start != std::string_view::npos && (*text)[start] == '<';
    return isXML ? stringInXMLForm(*text, key) : stringInTextForm(*text, key);
}

}  // namespace

std::optional<std::string> stringInPropertyList(std::string_view file, std::string_view key) {
    std::optional<std::string> found = findString(file, key);
    if (found && !isUTF8(*found)) found.reset();
    return found;
}

}  // namespace tidewell
