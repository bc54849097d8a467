#include "PropertyListSamples.hpp"

namespace tidewell {
namespace {

using namespace samples;

TEST(PropertyListXML, TextIsTakenAsItStands) {
    check({{"white space", xmlString(" a \n\tb "), " a \n\tb "},
           {"the five entities", xmlString("&lt;&gt;&amp;&apos;&quot;"), "<>&'\""},
           {"one replacement is not replaced again", xmlString("&amp;lt;"), "&lt;"},
           {"decimal references", xmlString("&#49;&#8364;&#1114111;"), "1€\xF4\x8F\xBF\xBF"},
           {"hexadecimal references", xmlString("&#x31;&#x20AC;&#x1f600;"), "1€😀"},
           {"around the surrogates", xmlString("&#xD7FF;&#xE000;"), "\xED\x9F\xBF\xEE\x80\x80"},
           {"CDATA", xmlString("a<![CDATA[<b>&amp;]]>c<![CDATA[]]>"), "a<b>&amp;c"},
           {"a right angle bracket", xmlString("a > b"), "a > b"},
           {"a key with references", xml("<key>&#75;</key><string>v</string>"), "v"},
           {"a key with CDATA", xml("<key><![CDATA[K]]></key><string>v</string>"), "v"}});
}

TEST(PropertyListXML, ABrokenReferenceMakesTheFileUnreadable) {
    for (const char* reference : {"&",        "&;",       "&amp",   "& amp;",     "&nbsp;",
                                  "&LT;",     "&#;",      "&#x;",   "&#0;",       "&#-1;",
                                  "&#+1;",    "&# 1;",    "&#1 ;",  "&#x110000;", "&#1114112;",
                                  "&#xD800;", "&#xDFFF;", "&#X41;", "&#4A;",      "&#99999999999999999999;"})
        EXPECT_EQ(read(xmlWith("<string>" + std::string(reference) + "</string>")), nothing) << reference;
}

TEST(PropertyListXML, WhatStandsBetweenElementsIsSkipped) {
    check(
        {{"white space", " \r\n" + xmlSample, "1.2.3"},
         {"no plist element", "<dict><key>K</key><string>v</string></dict>", "v"},
         {"comments",
          "<!-- a --><plist><!-- <dict> --><dict><!----><key>K</key><!-- - -- --><string>v</string>"
          "<!-- c --></dict><!-- d --></plist>",
          "v"},
         {"instructions", "<?a?><plist><?b ?><dict><?c>?><key>K</key><?d?><string>v</string></dict></plist>",
          "v"},
         {"attributes",
          "<plist a='b'><dict a=\"b\"><key a='b'>K</key><string a='b' >v</string></dict></plist>", "v"},
         {"white space in tags", "<plist ><dict\n><key >K</key ><string >v</string\n></dict ></plist >", "v"},
         {"declarations",
          "<!DOCTYPE plist [ <!ELEMENT a ANY> <!-- ]> --> <?p?> <!ENTITY b 'c'> ] >" +
              xmlSample.substr(xmlSample.find("<plist")),
          "1.2.3"}});
}

TEST(PropertyListXML, EveryKindOfValueIsRead) {
    for (const char* value : {"<string>s</string>",
                              "<string/>",
                              "<string />",
                              "<dict/>",
                              "<dict></dict>",
                              "<array/>",
                              "<array> </array>",
                              "<array><dict/><array/></array>",
                              "<true/>",
                              "<false/>",
                              "<true></true>",
                              "<data/>",
                              "<data></data>",
                              "<integer>0</integer>",
                              "<integer>-9223372036854775808</integer>",
                              "<integer>18446744073709551615</integer>",
                              "<integer> +7 </integer>",
                              "<integer>0x1F</integer>",
                              "<integer>-0Xff</integer>",
                              "<integer>007</integer>",
                              "<real>1</real>",
                              "<real>-1.5e+10</real>",
                              "<real>.5</real>",
                              "<real>5.</real>",
                              "<real> 1E3 </real>",
                              "<real>nan</real>",
                              "<real>-Infinity</real>",
                              "<real>+inf</real>",
                              "<real>1e999</real>",
                              "<date>2024-05-31T12:00:00Z</date>",
                              "<date>-0044-03-15T12:00:00Z</date>",
                              "<data>\n\tAQ==\n</data>",
                              "<data>AQI=</data>",
                              "<data>A Q I D</data>",
                              "<data>+/+/</data>"})
        EXPECT_EQ(read(xmlWith(value)), "v") << value;
}

TEST(PropertyListXML, ABrokenValueMakesTheFileUnreadable) {
    for (const char* value : {"",
                              "text",
                              "<key>k</key>",
                              "<Dict/>",
                              "<uid>1</uid>",
                              "<plist/>",
                              "<string>s</strin>",
                              "<string>s</string",
                              "<string>s</ string>",
                              "<string><b/></string>",
                              "<string>a<!-- c -->b</string>",
                              "<string>a<![CDATA[b</string>",
                              "<dict><string>s</string></dict>",
                              "<dict><key>k</key></dict>",
                              "<dict><key>k</key><key>l</key></dict>",
                              "<dict><key>k</key><true/><true/></dict>",
                              "<dict>text</dict>",
                              "<array>text</array>",
                              "<array>&amp;</array>",
                              "<array><key>k</key></array>",
                              "<array></dict>",
                              "<array><true/>",
                              "<true/></array>",
                              "<true>1</true>",
                              "<false>0</false>",
                              "<dict><string>k</string><true/></dict>",
                              "<string <x</string>",
                              "<string>\x80</string>",
                              "<!-- \x80 --><true/>",
                              "<true <false/>",
                              "<true",
                              "< true/>",
                              "<>",
                              "</>",
                              "<!-- c",
                              "<!-- c --",
                              "<? p",
                              "<![CDATA[x]]>",
                              "<!DOCTYPE x>",
                              "<integer/>",
                              "<integer> </integer>",
                              "<integer>1.0</integer>",
                              "<integer>1 2</integer>",
                              "<integer>--1</integer>",
                              "<integer>+-1</integer>",
                              "<integer>0x</integer>",
                              "<integer>0xG</integer>",
                              "<integer>A</integer>",
                              "<integer>18446744073709551616</integer>",
                              "<integer>-9223372036854775809</integer>",
                              "<real/>",
                              "<real>.</real>",
                              "<real>1e</real>",
                              "<real>1e+</real>",
                              "<real>1.2.3</real>",
                              "<real>0x1</real>",
                              "<real>infinit</real>",
                              "<real>nano</real>",
                              "<real>infinityinf</real>",
                              "<date/>",
                              "<date>today</date>",
                              "<date>2024-05-31</date>",
                              "<date>2024-05-31T12:00:00</date>",
                              "<date>2024-05-31 12:00:00Z</date>",
                              "<date>2024-5-31T12:00:00Z</date>",
                              "<date>2024-05-31T12:00:00Z </date>",
                              "<date>-05-31T12:00:00Z</date>",
                              "<data>A</data>",
                              "<data>AQ</data>",
                              "<data>AQ=</data>",
                              "<data>A===</data>",
                              "<data>A=ID</data>",
                              "<data>A-ID</data>",
                              "<data>====</data>"})
        EXPECT_EQ(read(xmlWith(value)), nothing) << value;
}

TEST(PropertyListXML, TheDocumentMustBeWhole) {
    const std::string list = "<dict><key>K</key><string>v</string></dict>";
    checkRefused({"<plist/>",
                  "<plist></plist>",
                  "<plist>" + list,
                  "<plist>" + list + list + "</plist>",
                  "<plist><plist>" + list + "</plist></plist>",
                  "<PLIST>" + list + "</PLIST>",
                  list + list,
                  "<plist>text" + list + "</plist>",
                  "<plist>" + list + "text</plist>",
                  "<a/>" + list,
                  "<plist/>" + list + "</plist>",
                  "<!DOCTYPE plist [>" + list,
                  list + "<!DOCTYPE plist>",
                  "<!DOCTYPE plist" + list,
                  "<!DOCTYPE plist [" + list,
                  "<!DOCTYPE plist [x]>" + list,
                  "<!DOCTYPE plist [<!a>]" + list,
                  "<!DOCTYPE plist [<!a]>" + list,
                  "<!doctype plist>" + list,
                  "<!ENTITY a 'b'>" + list,
                  "<![CDATA[" + list + "]]>",
                  "<?xml" + list,
                  "<dict><key>K</key><string>v</string></array>",
                  "<dict><key>K</key><string>v</string></plist>"});
}

}  // namespace
}  // namespace tidewell
