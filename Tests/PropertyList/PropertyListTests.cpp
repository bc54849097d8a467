#include "PropertyList/Samples.hpp"

namespace tidewell {
namespace {

using namespace samples;

constexpr std::size_t nestingLimit = 512;
constexpr std::size_t farTooDeep = 5'000'000;

TEST(PropertyList, AStringIsFoundInEveryForm) {
    check({{"XML", xmlSample, "1.2.3"},
           {"binary", binarySample, "1.2.3"},
           {"text", textSample, "1.2.3"},
           {"text without braces", "a = b;\n\"K\" = \"1.2.3\";\n", "1.2.3"}});
}

TEST(PropertyList, OnlyAStringInTheTopLevelDictionaryCounts) {
    check({{"no bytes", "", nothing},
           {"white space", " \n\t", nothing},
           {"not a property list", "\x7F\x45LF\x02\x01", nothing},
           {"XML without the key", xml("<key>k</key><string>v</string>"), nothing},
           {"XML, empty dictionary", "<plist><dict/></plist>", nothing},
           {"XML, value no string", xml("<key>K</key><integer>1</integer>"), nothing},
           {"XML, key further down", xmlWith("<dict><key>K</key><string>w</string></dict>"), "v"},
           {"XML, key only further down", xml("<key>x</key><dict><key>K</key><string>w</string></dict>"),
            nothing},
           {"XML, string further down in the value", xml("<key>K</key><array><string>w</string></array>"),
            nothing},
           {"XML, top level an array", "<plist><array><string>K</string></array></plist>", nothing},
           {"XML, top level a string", "<plist><string>K</string></plist>", nothing},
           {"binary without the key", binary({"\xD1" + ref(1) + ref(1), "\x51k"}), nothing},
           {"binary, value no string", binaryValue("\x10\x01"), nothing},
           {"binary, key further down", binaryWith("\xD1" + ref(1) + ref(3)), "v"},
           {"binary, top level an array", binary({"\xA1" + ref(1) + ref(2), "\x51K", "\x51v"}), nothing},
           {"binary, top object not the first", binary({"\x51K", "\xD1" + ref(0) + ref(0)}, 1), "K"},
           {"text without the key", "{k = v;}", nothing},
           {"text, value no string", "{K = (v);}", nothing},
           {"text, value data", "{K = <00>;}", nothing},
           {"text, key further down", "{x = {K = w;}; }", nothing},
           {"text, top level an array", "(K, v)", nothing},
           {"text, top level a string", "K", nothing}});
}

TEST(PropertyList, TheLastOfTwoEqualKeysWins) {
    const std::string twice = "\xD2" + ref(1) + ref(2) + ref(3) + ref(4);
    check({{"XML", xml("<key>K</key><string>v</string><key>K</key><string>w</string>"), "w"},
           {"XML, the last no string", xml("<key>K</key><string>v</string><key>K</key><true/>"), nothing},
           {"binary", binary({twice, "\x51K", "\x51K", "\x51v", "\x51w"}), "w"},
           {"binary, the last no string", binary({twice, "\x51K", "\x51K", "\x51v", "\x09"}), nothing},
           {"text", "{K = v; K = w;}", "w"},
           {"text, the last no string", "{K = v; K = (w);}", nothing},
           {"text, the last without a value", "{K = v; K;}", "K"}});
}

TEST(PropertyList, AnEmptyStringIsAnAnswer) {
    check({{"XML", xmlString(""), ""},
           {"XML, empty element", xml("<key>K</key><string/>"), ""},
           {"binary", binaryValue("\x50"), ""},
           {"text", "{K = \"\";}", ""}});
}

TEST(PropertyList, EveryTruncatedFileIsRefused) {
    const std::string bareXML = "<dict><key>K</key><string>v</string><key>x</key><true/></dict>";
    for (const std::string& whole : {xmlSample, bareXML, binarySample, textSample})
        for (std::size_t size = 0; size < whole.size(); ++size)
            EXPECT_EQ(read(whole.substr(0, size)), nothing) << whole.substr(0, size);
}

TEST(PropertyList, TrailingGarbageIsRefused) {
    checkRefused({xmlSample + "x", xmlSample + "<dict/>", binarySample + "x", binarySample + "\0"s,
                  textSample + "x", textSample + "}", textSample + ";", "K = v; }", "K = v; K = w"});
    check({{"XML", xmlSample + "\n<!-- c --> <?p?>\n", "1.2.3"},
           {"text", textSample + "\n/* c */ // c", "1.2.3"}});
}

TEST(PropertyList, OneNULMayEndAWrittenForm) {
    const std::string nul(1, '\0');
    check({{"XML", xmlSample + nul, "1.2.3"},
           {"XML and white space", xmlSample + "\n" + nul, "1.2.3"},
           {"text", textSample + nul, "1.2.3"},
           {"text without braces", "K = v;" + nul, "v"},
           {"two", xmlSample + nul + nul, nothing},
           {"two behind text", textSample + nul + nul, nothing},
           {"one before white space", xmlSample + nul + "\n", nothing},
           {"one in the middle", "K = v;" + nul + "a = b;", nothing},
           {"one alone", nul, nothing}});
}

TEST(PropertyList, NestingIsReadUpToTheLimitAndRefusedBeyond) {
    const auto xmlNested = [](std::size_t arrays) {
        return xmlWith(repeated("<array>", arrays) + repeated("</array>", arrays));
    };
    const auto textNested = [](std::size_t arrays) {
        return "{K = v; x = " + repeated("(", arrays) + repeated(")", arrays) + ";}";
    };
    const auto textDictionaries = [](std::size_t dictionaries) {
        return "{K = v; x = " + repeated("{a = ", dictionaries - 1) + "{}" +
               repeated(";}", dictionaries - 1) + ";}";
    };
    const auto binaryNested = [](std::size_t arrays) {
        std::vector<std::string> further;
        for (std::size_t index = 1; index < arrays; ++index) further.push_back("\xA1" + ref(5 + index));
        further.back() = "\xA0";
        return binaryWith("\xA1" + ref(5), further);
    };
    check({{"XML at the limit", xmlNested(nestingLimit - 1), "v"},
           {"XML past it", xmlNested(nestingLimit), nothing},
           {"XML past it with an empty element",
            xmlWith(repeated("<array>", nestingLimit - 1) + "<array/>" +
                    repeated("</array>", nestingLimit - 1)),
            nothing},
           {"text at the limit", textNested(nestingLimit - 1), "v"},
           {"text past it", textNested(nestingLimit), nothing},
           {"text at the limit, an element missing",
            "{K = v; x = " + repeated("(", nestingLimit - 1) + "," + repeated(")", nestingLimit - 1) + ";}",
            nothing},
           {"text dictionaries at the limit", textDictionaries(nestingLimit - 1), "v"},
           {"text dictionaries past it", textDictionaries(nestingLimit), nothing},
           {"binary at the limit", binaryNested(nestingLimit - 1), "v"},
           {"binary past it", binaryNested(nestingLimit), nothing}});
}

TEST(PropertyList, ADeepPartCountsInFullWhereverItIsSharedFrom) {
    // Object 5 is the outermost of `arrays` arrays; 4 holds it once directly and once within another array.
    const auto shared = [](std::size_t arrays) {
        std::vector<std::string> further;
        for (std::size_t index = 1; index < arrays; ++index) further.push_back("\xA1" + ref(5 + index));
        further.push_back("\xA0");
        further.push_back("\xA1" + ref(5));
        return binaryWith("\xA2" + ref(5) + ref(5 + arrays), further);
    };
    check({{"at the limit", shared(nestingLimit - 3), "v"}, {"past it", shared(nestingLimit - 2), nothing}});
}

TEST(PropertyList, HostileFilesAreRefusedAtOnce) {
    checkRefused({"<plist><dict><key>K</key>" + repeated("<array>", farTooDeep),
                  "<plist><dict><key>K</key>" + repeated("<dict><key>K</key>", farTooDeep),
                  "{K = " + repeated("(", farTooDeep), repeated("{K=", farTooDeep), repeated("(", farTooDeep),
                  repeated("<", farTooDeep), repeated("<!--", farTooDeep),
                  xmlString(repeated("&", farTooDeep)), xmlString(repeated("<![CDATA[", farTooDeep)),
                  repeated("/*", farTooDeep), repeated("\"", farTooDeep)});
}

TEST(PropertyList, AnEntityBombIsNeverExpanded) {
    std::string declarations = "<!ENTITY a0 \"ha\">";
    for (int level = 1; level < 40; ++level) {
        const std::string name = "a" + std::to_string(level);
        const std::string part = "&a" + std::to_string(level - 1) + ";";
        declarations += "<!ENTITY " + name + " \"" + part + part + "\">";
    }
    EXPECT_EQ(read("<!DOCTYPE plist [" + declarations + "]>" + xmlString("&a39;")), nothing);
}

TEST(PropertyList, OnlyValidUTF8IsRead) {
    const std::vector<Sample> sequences = {
        {"last of one byte", "\x7F", "\x7F"},
        {"first and last of two", "\xC2\x80\xDF\xBF", "\xC2\x80\xDF\xBF"},
        {"first and last of three", "\xE0\xA0\x80\xEF\xBF\xBF", "\xE0\xA0\x80\xEF\xBF\xBF"},
        {"around the surrogates", "\xED\x9F\xBF\xEE\x80\x80", "\xED\x9F\xBF\xEE\x80\x80"},
        {"first and last of four", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"a lone continuation", "\x80", nothing},
        {"two bytes, overlong", "\xC1\xBF", nothing},
        {"three bytes, overlong", "\xE0\x9F\xBF", nothing},
        {"four bytes, overlong", "\xF0\x8F\xBF\xBF", nothing},
        {"first surrogate", "\xED\xA0\x80", nothing},
        {"last surrogate", "\xED\xBF\xBF", nothing},
        {"beyond the last code point", "\xF4\x90\x80\x80", nothing},
        {"five bytes", "\xF8\x88\x80\x80\x80", nothing},
        {"cut short", "\xE2\x82", nothing},
        {"another byte in place of a continuation", "\xE2(\xA1", nothing}};
    for (const Sample& sequence : sequences)
        check({{"XML, " + sequence.what, xmlString(sequence.file), sequence.answer},
               {"text, " + sequence.what, "{K = \"" + sequence.file + "\";}", sequence.answer}});
}

TEST(PropertyList, AByteOrderMarkOrTheDeclarationSetsTheCharacterSet) {
    const std::string declared = "<?xml version='1.0' encoding='";
    const std::string list = xmlString("v");
    check({{"UTF-8 mark", "\xEF\xBB\xBF" + list, "v"},
           {"UTF-8 mark before text", "\xEF\xBB\xBF{K = v;}", "v"},
           {"UTF-16, high byte first", "\xFE\xFF" + utf16(list, true), "v"},
           {"UTF-16, low byte first", "\xFF\xFE" + utf16(list, false), "v"},
           {"UTF-16 text", "\xFE\xFF" + utf16("K = \"v", true) + "\xD8\x3D\xDE\x00"s + utf16("\";", true),
            "v😀"},
           {"UTF-16 text, low byte first",
            "\xFF\xFE" + utf16("K = \"v", false) + "\x3D\xD8\x00\xDE"s + utf16("\";", false), "v😀"},
           {"UTF-16 with a lone surrogate", "\xFE\xFF" + utf16("K = v; x = \"", true) + "\xD8\x3D\0\";"s,
            nothing},
           {"UTF-16 with an odd byte", "\xFE\xFF" + utf16("{K = v;}", true) + " ", nothing},
           {"no mark, but UTF-16", utf16(list, true), nothing},
           {"half a mark, high byte first", "\xFE\0"s + utf16(list, true), nothing},
           {"half a mark, low byte first", "\xFF\0"s + utf16(list, false), nothing},
           {"declared UTF-8", declared + "UTF-8'?>" + xmlString("é"), "é"},
           {"declared in small letters", declared + "utf-8'?>" + list, "v"},
           {"declared UTF8", declared + "UTF8'?>" + list, "v"},
           {"declared ASCII", declared + "ASCII'?>" + list, "v"},
           {"declared Latin1", declared + "Latin1'?>" + xmlString("\xE9"), "é"},
           {"declared US-ASCII", declared + "US-ASCII'?>" + list, "v"},
           {"declared US-ASCII, but is not", declared + "US-ASCII'?>" + xmlString("é"), nothing},
           {"declared ISO-8859-1", declared + "ISO-8859-1'?>" + xmlString("\xE9"), "é"},
           {"declared with spaces", "<?xml encoding = \"iso-8859-1\" ?>" + xmlString("\xE9"), "é"},
           {"the mark outranks the declaration", "\xEF\xBB\xBF" + declared + "ISO-8859-1'?>" + xmlString("é"),
            "é"},
           {"unknown", declared + "EBCDIC-US'?>" + list, nothing},
           {"declared UTF-16, but single bytes", declared + "UTF-16'?>" + list, nothing},
           {"unfinished", "<?xml encoding='utf-8?>" + list, nothing},
           {"without a name", "<?xml encoding=?>" + list, nothing},
           {"in another place", list + "<?xml encoding='EBCDIC-US'?>", "v"}});
}

}  // namespace
}  // namespace tidewell
