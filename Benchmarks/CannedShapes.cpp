#include "CannedShapes.hpp"

#include "CannedReply.hpp"

#include <map>

namespace tidewell::bench {

namespace {

constexpr std::size_t size = 8 * megabyte;
constexpr std::size_t shapeDepth = 500;
constexpr std::size_t keyCount = 200'000;

std::string withResult(const std::string& result) { return R"({"ok":true,"result":)" + result + "}\n"; }

template <typename Element>
std::string arrayOf(Element element) {
    return withResult(filled("[", size, element, "]"));
}

/// Numbers of up to 32 bits in no visible order.
std::size_t mixed(std::size_t at) { return at * 2654435761U % (std::size_t{1} << 32); }

template <typename... Arguments>
std::string formatted(const char* pattern, Arguments... arguments) {
    std::array<char, 256> text{};
    const int length = std::snprintf(text.data(), text.size(), pattern, arguments...);
    return {text.data(), static_cast<std::size_t>(length)};
}

std::string replaced(std::string text, std::string_view old, std::string_view replacement) {
    return text.replace(text.find(old), old.size(), replacement);
}

std::string escapedKeys() {
    return arrayOf([](std::size_t at) { return replaced(cannedRecord(at), "owner", R"(caf\u00e9)"); });
}

std::string duplicateKeys() {
    return arrayOf([](std::size_t at) { return replaced(cannedRecord(at), "{", R"({"branch":"main",)"); });
}

std::string manyKeys() {
    std::string text = "{";
    for (std::size_t at = 0; at < keyCount; ++at)
        text += formatted(R"(%s"repository-%06zu":"main, %06zu behind")", at > 0 ? "," : "", at, at);
    return withResult(text + "}");
}

std::string smallIntegers() {
    return arrayOf([](std::size_t at) { return std::to_string(mixed(at) % 1000); });
}

std::string longDoubles() {
    return arrayOf(
        [](std::size_t at) { return formatted("%.16g", 1 + static_cast<double>(mixed(at)) / 429496729.6); });
}

std::string otherSpellings() {
    return arrayOf([](std::size_t at) {
        return formatted(at % 2 == 0 ? "%zu.%zu0" : "%zu.%zue3", 1 + mixed(at) % 900, 1 + at % 9);
    });
}

std::string japanese() {
    return arrayOf([](std::size_t at) {
        return formatted(
            R"({"名前":"潮位観測所%zu号","説明":"港の在庫と井戸の記録を毎日まとめる小さな道具","枝":%zu})",
            at, at % 7);
    });
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char character : text) result += formatted(R"(\u%04x)", static_cast<unsigned>(character));
    return result;
}

std::string everythingEscaped() {
    return arrayOf([](std::size_t at) {
        return "{\"" + escaped("path") + "\":\"" + escaped("group/repository-" + std::to_string(at)) +
               "\",\"" + escaped("branch") + "\":\"" + escaped("feature/tide") + "\"}";
    });
}

/// Adds the blanks of indented text, but no line feeds: a reply is one line.
std::string indented(const std::string& record) {
    std::string text(8, ' ');
    bool inString = false;
    for (std::size_t at = 0; at < record.size(); ++at) {
        const char byte = record[at];
        text += byte;
        if (inString && byte == '\\') {
            text += record[++at];
        } else if (byte == '"') {
            inString = !inString;
        } else if (!inString && byte == ':') {
            text += ' ';
        } else if (!inString && (byte == ',' || byte == '{')) {
            text.append(12, ' ');
        }
    }
    return text;
}

std::string prettyPrinted() {
    return arrayOf([](std::size_t at) { return indented(cannedRecord(at)); });
}

std::string nested() {
    std::string opening;
    std::string closing;
    for (std::size_t depth = 0; depth < shapeDepth; depth += 2) {
        opening += R"({"a":[)";
        closing += "]}";
    }
    return arrayOf([&](std::size_t at) { return opening + std::to_string(at) + closing; });
}

std::string oneString() {
    std::string text = "\"";
    while (text.size() < size) text += R"(The tide rises \"slowly\" here, day by day and line by line.\n)";
    return withResult(text + '"');
}

std::string resultBeforeOk() { return R"({"result":)" + cannedResult(size) + ",\"ok\":true}\n"; }

std::string resultTwice() {
    return R"({"ok":true,"result":)" + cannedResult(size / 2) + R"(,"result":)" +
           filled("[", size / 2, cannedRecord, "]") + "}\n";
}

std::string answer(std::string_view tool) {
    for (const Shape& shape : shapes) {
        if (shape.name == tool) return shape.reply();
    }
    if (tool == "git_push")
        return R"({"ok":false,"error":{"code":"confirmation_required","message":"No valid confirmation token.",)"
               R"("hint":"Ask for one in Tidewell → Agent Review."}})"
               "\n";
    if (tool == "list_local_repositories") return cannedReply(megabyte);
    const bool isSized = tool.starts_with("reply_");
    return cannedReply(isSized ? std::stoul(std::string(tool.substr(6))) : smallSize);
}

}  // namespace

const std::array<Shape, 13> shapes = {{
    {"shape_escaped_keys", "a key with an escape in every row", escapedKeys},
    {"shape_duplicate_keys", "a duplicate key in every row", duplicateKeys},
    {"shape_many_keys", "one object of 200,000 keys", manyKeys},
    {"shape_small_integers", "one array of small integers (two million)", smallIntegers},
    {"shape_long_doubles", "doubles of 16 digits", longDoubles},
    {"shape_other_spellings", "numbers like `12.50` and `1.5e3`", otherSpellings},
    {"shape_japanese", "Japanese text", japanese},
    {"shape_everything_escaped", "every character written `\\uXXXX`", everythingEscaped},
    {"shape_pretty_printed", "indented with blanks", prettyPrinted},
    {"shape_nested", "nested 500 deep", nested},
    {"shape_one_string", "one string", oneString},
    {"shape_result_before_ok", "\"result\" before \"ok\"", resultBeforeOk},
    {"shape_result_twice", "\"result\" twice", resultTwice},
}};

const std::string& cannedAnswer(std::string_view tool) {
    static std::map<std::string, std::string, std::less<>> answers;
    const auto found = answers.find(tool);
    return found != answers.end() ? found->second : answers.emplace(tool, answer(tool)).first->second;
}

}  // namespace tidewell::bench
