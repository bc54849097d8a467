#include "PropertyList/Samples.hpp"

namespace tidewell {
namespace {

using namespace samples;

const std::string xmlOfDictionary = "<dict><key>K</key><string>v</string></dict>";

TEST(PropertyListXML, TextIsTakenAsItStands) {
    check({{"white space", xmlString(" a \n\tb "), " a \n\tb "},
           {"the five entities", xmlString("&lt;&gt;&amp;&apos;&quot;"), "<>&'\""},
           {"one replacement is not replaced again", xmlString("&amp;lt;"), "&lt;"},
           {"decimal references", xmlString("&#49;&#8364;&#1114111;"), "1€\xF4\x8F\xBF\xBF"},
           {"hexadecimal references", xmlString("&#x31;&#x20AC;&#x1f600;"), "1€😀"},
           {"around the surrogates", xmlString("&#xD7FF;&#xE000;"), "\xED\x9F\xBF\xEE\x80\x80"},
           {"CDATA", xmlString("a<![CDATA[<b>&amp;]]>c<![CDATA[]]>"), "a<b>&amp;c"},
           {"a right angle bracket", xmlString("a > b"), "a > b"},
           {"remarks", xmlString("a<!-- > & </string> -->b<?p >?>c<!---->"), "abc"},
           {"a key with references", xml("<key>&#75;</key><string>v</string>"), "v"},
           {"a key with CDATA", xml("<key><![CDATA[K]]></key><string>v</string>"), "v"},
           {"a key with remarks", xml("<key><!-- k -->K<?k?></key><string>v</string>"), "v"}});
}

TEST(PropertyListXML, ABrokenReferenceMakesTheFileUnreadable) {
    for (const char* reference : {"&",        "&;",       "&amp",   "& amp;",     "&nbsp;",
                                  "&LT;",     "&#;",      "&#x;",   "&#0;",       "&#-1;",
                                  "&#+1;",    "&# 1;",    "&#1 ;",  "&#x110000;", "&#1114112;",
                                  "&#xD800;", "&#xDFFF;", "&#X41;", "&#4A;",      "&#99999999999999999999;",
                                  "&lt"})
        EXPECT_EQ(read(xmlWith("<string>" + std::string(reference) + "</string>")), nothing) << reference;
    EXPECT_EQ(read(xml("<key>K</key><string>v&<key>x</key><string>w</string>")), nothing)
        << "in place of the end";
}

TEST(PropertyListXML, WhatStandsBetweenElementsIsSkipped) {
    check(
        {{"white space", " \r\n\t" + xmlSample, "1.2.3"},
         {"no plist element", "<dict><key>K</key><string>v</string></dict>", "v"},
         {"comments",
          "<!-- a --><plist><!-- <dict> --><dict><!----><key>K</key><!-- - -- --><string>v</string>"
          "<!-- c --></dict><!-- d --></plist>",
          "v"},
         {"instructions", "<?a?><plist><?b ?><dict><?c>?><key>K</key><?d?><string>v</string></dict></plist>",
          "v"},
         {"attributes",
          "<plist a='b'><dict a=\"b\"><key a='b'>K</key><string a='b' >v</string></dict></plist>", "v"},
         {"angle brackets and slashes in attributes",
          "<plist a='>' b=\"/>'\"><dict a='/'><key>K</key><string a='</string>' >v</string></dict></plist>",
          "v"},
         {"an empty element with attributes", xmlWith("<string a='b' />"), "v"},
         {"white space in tags", "<plist ><dict\n><key\t>K</key\r><string\r>v</string\n></dict ></plist\t>",
          "v"},
         {"declarations",
          "<!DOCTYPE plist [ <!ELEMENT a ANY> <!-- ]> --> <?p?> <!ENTITY b 'c'> ] >" + xmlOfDictionary, "v"},
         {"every kind of declaration",
          "<!DOCTYPE plist[<!ATTLIST a b CDATA #IMPLIED><!ELEMENT a ANY><!ENTITY b 'c'><!NOTATION n SYSTEM "
          "'s'>]>" +
              xmlOfDictionary,
          "v"},
         {"angle and square brackets in quotes",
          "<!DOCTYPE plist PUBLIC \"[>\" '>[' [<!ENTITY a \"]>'\"><!ENTITY b '\"]>'>]>" + xmlOfDictionary,
          "v"}});
}

TEST(PropertyListXML, EveryKindOfValueIsRead) {
    for (const char* value :
         {"<string>s</string>", "<string/>", "<string />", "<dict/>", "<dict></dict>", "<array/>",
          "<array> </array>", "<array><dict/><array/></array>", "<true/>", "<false/>", "<true></true>",
          "<data/>", "<data></data>", "<integer>0</integer>", "<real>-1.5e+10</real>",
          "<date>2024-05-31T12:00:00Z</date>", "<data>\n\tAQ==\n</data>"})
        EXPECT_EQ(read(xmlWith(value)), "v") << value;
}

TEST(PropertyListXML, WhatNobodyAskedForMaySayAnything) {
    for (const char* value : {"<integer/>", "<integer>1.0</integer>", "<real>0x1</real>", "<true>1</true>",
                              "<date>today</date>", "<data>A</data>", "<string>a<!-- c -->b</string>"})
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
                              "<string>a<!-- c --b</string>",
                              "<string>a<?b</string>",
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
                              "<true><!-- c --",
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
                              "<!DOCTYPE x>"})
        EXPECT_EQ(read(xmlWith(value)), nothing) << value;
}

TEST(PropertyListXML, TheDocumentMustBeWhole) {
    const std::string& list = xmlOfDictionary;
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
                  "<!DOCTYPE plist [<!ELEMENT a]>" + list,
                  "<!DOCTYPE plist [<!ELEMENT a>" + list,
                  "<!DOCTYPE plist [<!ENTITY a 'b>]>" + list,
                  "<!DOCTYPE plist [<!-- c > ]>" + list,
                  "<!DOCTYPE plist []" + list,
                  "<!DOCTYPE plist 'a>" + list,
                  list + "<!-- c",
                  list + "<?p",
                  "<plist a='>" + list + "</plist>",
                  "<plist/x>" + list + "</plist>",
                  "<plist>" + list + "</plist a='b'>",
                  "<!doctype plist>" + list,
                  "<!DOCTYP plist>" + list,
                  "<!ENTITY a 'b'>" + list,
                  "<![CDATA[" + list + "]]>",
                  "<?xml" + list,
                  "<dict><key>K</key><string>v</string></array>",
                  "<dict><key>K</key><string>v</string></plist>"});
}

}  // namespace
}  // namespace tidewell
