// FuzzPropertyList.cpp: the input as a version file in any of the three forms, and as a value to be found in one.
#include "PropertyList/PropertyList.hpp"
#include "Target.hpp"
#include "Wrapping.hpp"

#include <array>

namespace {

using namespace tidewell;
using namespace tidewell::fuzzing;

using Answer = std::optional<std::string>;

/// What a reader of either text form must ignore, and what it must not.
constexpr std::string_view blanks = " \n";
constexpr std::string_view garbage = "\n*/}";  // the "*/" ends a comment left open

bool isMarkedOrBinary(std::string_view file) {
    constexpr std::array<std::string_view, 4> marks = {"\xFE\xFF", "\xFF\xFE", "\xEF\xBB\xBF", "bplist0"};
    for (const std::string_view mark : marks) {
        if (file.starts_with(mark)) return true;
    }
    return false;
}

void checkWrittenForms(const std::string& file, std::string_view key, const Answer& answer) {
    if (!file.ends_with('\0')) {
        require(stringInPropertyList(file + '\0', key) == answer, "a NUL at the end changes nothing", file);
        require(stringInPropertyList(file + std::string(blanks), key) == answer,
                "white space at the end changes nothing", file);
    }
    if (answer) {
        require(!stringInPropertyList(file + std::string(garbage), key), "garbage at the end is noticed",
                file);
    }
    const auto units = utf16(file);
    if (!units || file.find("encoding") != std::string::npos) return;
    require(stringInPropertyList("\xEF\xBB\xBF" + file, key) == answer, "a UTF-8 mark changes nothing", file);
    require(stringInPropertyList("\xFE\xFF" + bytesOf(*units, true), key) == answer,
            "big-endian UTF-16 says the same", file);
    require(stringInPropertyList("\xFF\xFE" + bytesOf(*units, false), key) == answer,
            "little-endian UTF-16 says the same", file);
}

void checkFile(std::string_view file, std::string_view key) {
    const Answer answer = stringInPropertyList(file, key);
    require(!answer || utf16(*answer), "an answer is valid UTF-8", file);
    require(stringInPropertyList(file, key) == answer, "the same file gives the same answer", file);
    if (!isMarkedOrBinary(file)) checkWrittenForms(std::string(file), key, answer);
}

/// Any valid UTF-8 can be a value, and a key.
void checkValue(const std::string& value) {
    const auto units = utf16(value);
    if (!units) return;
    constexpr std::string_view key = "CFBundleShortVersionString";
    require(stringInPropertyList(inXML(key, value), key) == value, "XML gives back the value", value);
    require(stringInPropertyList(inText(key, *units), key) == value, "text gives back the value", value);
    require(stringInPropertyList(inBinary(*utf16(key), *units), key) == value, "binary gives back the value",
            value);
    require(stringInPropertyList(inXML(value, key), value) == key, "XML finds the key", value);
    require(stringInPropertyList(inBinary(*units, *utf16(key)), value) == key, "binary finds the key", value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view file = textOf(data, size);
    checkFile(file, "CFBundleShortVersionString");
    checkFile(file, "K");
    checkValue(std::string(file));
    return 0;
}
