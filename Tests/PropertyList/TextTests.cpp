#include "PropertyList/Samples.hpp"

namespace tidewell {
namespace {

using namespace samples;

TEST(PropertyListText, StringsComeBareOrQuoted) {
    const std::string bare = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_$/:.-";
    check({{"bare", "{K = " + bare + ";}", bare},
           {"double quotes", "{K = \"a 'b' ; } c\";}", "a 'b' ; } c"},
           {"single quotes", "{K = 'a \"b\"';}", "a \"b\""},
           {"a line break inside", "{K = \"a\nb\";}", "a\nb"},
           {"comment marks inside", "{K = \"/* // \";}", "/* // "},
           {"quoted keys", "{\"K\" = v; 'x' = w;}", "v"},
           {"other characters need quotes", "{K = é;}", nothing},
           {"other characters in quotes", "{K = \"é😀\";}", "é😀"}});
}

TEST(PropertyListText, EscapesInQuotesAreResolved) {
    const std::vector<Sample> escapes = {
        {"letters", R"(\a\b\f\n\r\t\v)", "\a\b\f\n\r\t\v"},
        {"quotes and backslash", R"(\"\'\\)", "\"'\\"},
        {"any other character", R"(\q\x\8\é)", "qx8é"},
        {"a line break", "\\\n", "\n"},
        {"octal", R"(\101\60\0601\7x)",
         "A0\060"
         "1\7x"},
        {"octal, three digits at most", R"(\0005)",
         "\0"
         "5"s},
        {"octal, each digit first", R"(\2x\3x\4x\5x)", "\2x\3x\4x\5x"},
        {"octal, eight bits", R"(\501)", "A"},
        {"UTF-16 unit", R"(\U20AC\U00e9)", "€é"},
        {"UTF-16 unit, four digits at most", R"(\U20ACA)", "€A"},
        {"UTF-16 unit, fewer digits", R"(\U41 \U7z)", "A \7z"},
        {"UTF-16 unit, no digits", R"(\Uz)", "\0z"s},
        {"surrogate pair", R"(\UD83D\UDE00)", "😀"},
        {"first and last surrogate pair", R"(\UD800\UDC00\UDBFF\UDFFF)", "\U00010000\U0010FFFF"},
        {"lone high surrogate", R"(\UD83D)", nothing},
        {"lone low surrogate", R"(\UDE00)", nothing},
        {"high surrogate before another unit", R"(\UD83D\U0041)", nothing},
        {"low surrogate after another unit", R"(\UD7FF\UDE00)", nothing},
        {"low surrogate after another", R"(\UDE00\UDE00)", nothing},
        {"surrogates apart", R"(\UD83D \UDE00)", nothing},
        {"small u is a letter", R"(\u0041)", "u0041"}};
    for (const Sample& escape : escapes)
        check({{escape.what, "{K = \"" + escape.file + "\";}", escape.answer}});
    check({{"a lone surrogate that nobody asked for", R"({K = v; x = "\UD83D";})", "v"},
           {"an escape in the key", R"({"\U004B" = v;})", "v"}});
}

TEST(PropertyListText, OctalEscapesMeanTheNeXTSTEPCharacterSet) {
    std::string escapes;
    for (int byte = 0x80; byte <= 0xFF; ++byte)
        escapes += {'\\', char('0' + byte / 64), char('0' + byte / 8 % 8), char('0' + byte % 8)};
    EXPECT_EQ(read("{K = \"" + escapes + "\";}"), "\u00A0ÀÁÂÃÄÅÇÈÉÊËÌÍÎÏÐÑÒÓÔÕÖÙÚÛÜÝÞµ×÷"
                                                  "©¡¢£⁄¥ƒ§¤’“«‹›ﬁﬂ®–†‡·¦¶•‚„”»…‰¬¿"
                                                  "¹ˋ´ˆ˜¯˘˙¨²˚¸³˝˛ˇ—±¼½¾àáâãäåçèéêë"
                                                  "ìÆíªîïðñŁØŒºòóôõöæùúûıüýłøœßþÿ\uFFFD\uFFFD");
}

TEST(PropertyListText, SpaceAndCommentsStandAnywhereBetween) {
    check({{"comments", "/**/{//c\nK /* = */=// ;\rv /*;*/;/* } */}//", "v"},
           {"separators of lines and paragraphs", "{\u2028K\u2029=//c\u2028v;//c\u2029}", "v"},
           {"a comment that begins with a slash", "{/*/ K = w; */ K = v;}", "v"},
           {"all white space", "\t\n\v\f\r {K\t=\nv\v;\f}\r ", "v"},
           {"a slash belongs to a bare string", "{K = /a//b;}", "/a//b"},
           {"a comment without an end", "{K = v;} /* c", "v"},
           {"a comment without an end hides the rest", "{K = v; /* }", nothing}});
}

TEST(PropertyListText, EveryKindOfValueIsRead) {
    for (const char* value : {"w", "\"\"", "{}", "{a = b;}", "{a;}", "()", "(w)", "(w,)", "(w, w)",
                              "( w , w , )", "((), {}, <>, 'w')", "<>", "< >", "<00>",
                              "<0123456789abcdefABCDEF>", "<00\n\t\r 00>", "<00\u202800>"})
        EXPECT_EQ(read("{K = v; x = " + std::string(value) + ";}"), "v") << value;
}

TEST(PropertyListText, ABrokenValueMakesTheFileUnreadable) {
    for (const char* value :
         {"",         "=",          ",",       ")",       "}",        "w w",          "w,",       "\"w",
          "'w\"",     "\"w\\",      "(",       "(,)",     "(w,,)",    "(w w)",        "(w;)",     "(w}",
          "{",        "{a}",        "{a = b}", "{a = ;}", "{= b;}",   "{;}",          "{a = b,}", "{a = b;;}",
          "{a = b;)", "{(a) = b;}", "<",       "<0",      "(w,",      "<0>",          "<0 0>",    "<0g>",
          "<00",      "<00/**/>",   "<00,00>", "+",       "\"\x80\"", "v /* \x80 */", "#w",       "@w",
          "\\w"})
        EXPECT_EQ(read("{K = v; x = " + std::string(value) + ";}"), nothing) << value;
}

TEST(PropertyListText, EveryPairEndsWithASemicolon) {
    checkRefused({"{K = v}", "{K = v, x = w;}", "{K}", "K = v", "K", "K = v; x =", "K = v; x = (w"});
}

TEST(PropertyListText, BracesMayBeLeftOutAndAKeyStandsForItself) {
    check({{"pairs", "\"a\" = \"b\";\nK = \"v\";", "v"},
           {"a key alone", "a; K;", "K"},
           {"a key alone in braces", "{K;}", "K"},
           {"nested braces", "a = {b = c;}; K = v;", "v"},
           {"an end without a beginning", "K = v;}", nothing},
           {"a beginning without an end", "{K = v;", nothing}});
}

}  // namespace
}  // namespace tidewell
