#include <settings/XmlDocument.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace sorvex::settings {
namespace {

using testing::HasSubstr;

std::string ErrorOf(const std::string& text) {
  try {
    ParseXml(text);
  } catch (const SettingsError& error) {
    return error.what();
  }
  return "none";
}

std::string Repeat(std::size_t times, const std::string& part) {
  std::string text;
  for (std::size_t i = 0; i < times; ++i) text += part;
  return text;
}

std::string Nested(std::size_t levels) { return Repeat(levels, "<a>") + Repeat(levels, "</a>"); }

TEST(XmlDocument, GivesElementsAttributesTextAndLines) {
  const XmlElement root = ParseXml(
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- a <comment> -->\n<root one='1'\n "
      "two=\"&lt;2&#33;\">\n"
      "  <child/> text\n <![CDATA[<more>]]>\n</root>\n");
  EXPECT_EQ(root.name, "root");
  EXPECT_EQ(root.line, 3u);
  ASSERT_EQ(root.attributes.size(), 2u);
  EXPECT_EQ(root.attributes[1], std::pair(std::string("two"), std::string("<2!")));
  ASSERT_EQ(root.children.size(), 1u);
  EXPECT_EQ(root.children[0].name, "child");
  EXPECT_EQ(root.children[0].line, 5u);
  EXPECT_THAT(root.text, testing::MatchesRegex("text\\s+<more>"));
}

TEST(XmlDocument, ErrorsHaveTheirLines) {
  EXPECT_THAT(ErrorOf("<a>\n<b>\n</c>\n</a>"), HasSubstr("line 3: "));
  EXPECT_THAT(ErrorOf("<a>\n<b x=1/>\n</a>"), HasSubstr("line 2: "));
  EXPECT_THAT(ErrorOf("<a>\n\n"), HasSubstr("line 3: "));
  EXPECT_EQ(ErrorOf("<a>\n<b x='1' x='2'/></a>"), "line 2: the attribute 'x' is given twice");
}

/// The parser overwrites what it has read; lines are counted in what was given to it.
TEST(XmlDocument, LineEndsBehindNamesCount) {
  EXPECT_THAT(ErrorOf("<a\nx='1'>\n<b>\n</c></a>"), HasSubstr("line 4: "));
  const XmlElement root = ParseXml("<a\nx='1'>\n<b/></a>");
  ASSERT_EQ(root.children.size(), 1u);
  EXPECT_EQ(root.children[0].line, 3u);
}

TEST(XmlDocument, OneRootIsWanted) {
  EXPECT_EQ(ErrorOf(""), "line 1: there is no element");
  EXPECT_EQ(ErrorOf("<!-- nothing -->"), "line 1: there is no element");
  EXPECT_EQ(ErrorOf("<a/>\n<b/>"), "line 2: something after the end of the document");
  EXPECT_NE(ErrorOf("<a/>text"), "none");
}

TEST(XmlDocument, DepthIsBounded) {
  EXPECT_EQ(ErrorOf(Nested(maxXmlDepth)), "none");
  EXPECT_THAT(ErrorOf(Nested(maxXmlDepth + 1)), HasSubstr("nested too deep"));
  // Sibling elements do not add depth.
  std::string wide = "<a>";
  for (int i = 0; i < 1000; ++i) wide += "<b/><c></c>";
  EXPECT_EQ(ErrorOf(wide + "</a>"), "none");
}

/// Each of these hides start tags from a careless reader, and the parser calls itself for each.
TEST(XmlDocument, DepthCannotBeHidden) {
  const std::string deep = Repeat(200'000, "<b>");
  EXPECT_NE(ErrorOf("<a\">" + deep + "\">"), "none");
  EXPECT_NE(ErrorOf("<a=\">" + deep + "\">"), "none");
  EXPECT_NE(ErrorOf("<a x\"=\">\" <!-- \">" + deep + " -->"), "none");
  EXPECT_NE(ErrorOf("<a x='/>'>" + deep), "none");
  EXPECT_NE(ErrorOf("<a x='" + deep), "none");
  EXPECT_NE(ErrorOf("<a><!-- </a></a> -->" + deep), "none");
  EXPECT_NE(ErrorOf("<a>" + deep + "</b></b>"), "none");
  EXPECT_NE(ErrorOf(Repeat(200'000, "<b x='/>' ></a>")), "none");
}

TEST(XmlDocument, DepthIsCountedThroughWhatStandsBetween) {
  const char* const refused = "line 1: elements are nested too deep";
  const std::size_t tooDeep = maxXmlDepth + 1;
  EXPECT_EQ(ErrorOf(Repeat(tooDeep, "<b x='/>' >")), refused);
  EXPECT_EQ(ErrorOf(Repeat(tooDeep, "<b x=\"/>\" >")), refused);
  EXPECT_EQ(ErrorOf(Repeat(tooDeep, "<b><c></c>")), refused);
  EXPECT_EQ(ErrorOf("<!-- -->" + Repeat(tooDeep, "<b>") + "<!-- -->"), refused);
  EXPECT_EQ(ErrorOf("</a>" + Repeat(tooDeep, "<b>")), refused);
}

TEST(XmlDocument, WhatDoesNotEndIsToldWhereItBegins) {
  for (const char* const start : {"<!-- x->", "<![CDATA[x]>", "<?x>", "</b"}) {
    EXPECT_EQ(ErrorOf("<a>\n" + std::string(start) + "\n"), "line 2: what begins here does not end") << start;
  }
  for (const char* const start : {"<b", "<b x", "<b <c>", "<b x='1>", "<b x='<'/></a>"}) {
    EXPECT_EQ(ErrorOf("<a>\n" + std::string(start)), "line 2: this tag does not end") << start;
  }
}

TEST(XmlDocument, QuotationMarksBelongToValues) {
  EXPECT_EQ(ErrorOf("<a>\n<b x\"=\"/></a>"), "line 2: a quotation mark in this tag that belongs to no value");
}

TEST(XmlDocument, WhatOnlyLooksLikeTagsIsNoDepth) {
  const std::string deep = Repeat(maxXmlDepth + 1, "<b>");
  EXPECT_EQ(ErrorOf("<!-->" + deep + "--><a/>"), "none");
  EXPECT_EQ(ErrorOf("<?>" + deep + "?><a/>"), "none");
  EXPECT_EQ(ErrorOf("<a><![CDATA[]>" + deep + "]]></a>"), "none");
}

TEST(XmlDocument, CommentsSectionsAndInstructionsMayBeEmpty) {
  EXPECT_EQ(ErrorOf("<!----><?"
                    "?><a><![CDATA[]]></a>"),
            "none");
}

TEST(XmlDocument, TagsHaveProperNames) {
  for (const char character : std::string("\"'=<?!&")) {
    EXPECT_EQ(ErrorOf(std::string("<a>\n<b") + character + "c/></a>"), "line 2: this tag has no proper name")
        << character;
    EXPECT_EQ(ErrorOf(std::string("<a>\n<b") + character + " /></a>"), "line 2: this tag has no proper name")
        << character;
  }
  EXPECT_THAT(ErrorOf("<a>\n</>"), HasSubstr("line 2: invalid closing tag name"));
}

TEST(XmlDocument, BlanksOfEveryKindPartAttributes) {
  const XmlElement root = ParseXml("<a\tx='1'\r\ny='2' z =\t'3'\r\n/>\r\n");
  ASSERT_EQ(root.attributes.size(), 3u);
  EXPECT_EQ(root.attributes[1].second, "2");
  EXPECT_EQ(root.attributes[2].second, "3");
}

TEST(XmlDocument, DocumentTypesAreRefused) {
  EXPECT_EQ(ErrorOf("<!DOCTYPE a [<!ENTITY b \"bbbb\">]>\n<a>&b;</a>"), "line 1: document types are not allowed");
}

TEST(XmlDocument, OnlyXmlsOwnEntitiesAreKnown) {
  EXPECT_EQ(ParseXml("<a x='&amp;&lt;&gt;&apos;&quot;'/>").attributes[0].second, "&<>'\"");
  EXPECT_EQ(ParseXml("<a x='&other;'/>").attributes[0].second, "&other;");
}

TEST(XmlDocument, TextIsUtf8WithoutControlCharacters) {
  EXPECT_EQ(ErrorOf("<a>\n\xE4</a>"), "line 2: this is not UTF-8");
  EXPECT_EQ(ErrorOf("<a>\n\xE4\n</a>"), "line 2: this is not UTF-8");
  EXPECT_EQ(ErrorOf("<a>\x1F</a>"), "line 1: a control character");
  EXPECT_EQ(ErrorOf(std::string("<a/>\n\0<b/>", 10)), "line 2: a control character");
  EXPECT_EQ(ErrorOf("<a x='&#10;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<a x='&#31;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<a x='\xC3\xA4'/>"), "none");
  EXPECT_EQ(ErrorOf("<a x='&#0;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<a/>\n\xC3"), "line 2: this is not UTF-8");
  EXPECT_EQ(ErrorOf("<a x='&#127;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<?xml version='1.0' encoding='ISO-8859-1'?><a/>"), "line 1: the encoding has to be UTF-8");
}

}  // namespace
}  // namespace sorvex::settings
