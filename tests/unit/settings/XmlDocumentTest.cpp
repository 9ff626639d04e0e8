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

std::string Nested(std::size_t levels) {
  std::string text;
  for (std::size_t i = 0; i < levels; ++i) text += "<a>";
  for (std::size_t i = 0; i < levels; ++i) text += "</a>";
  return text;
}

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
  std::string deep;
  for (int i = 0; i < 200'000; ++i) deep += "<b>";
  EXPECT_NE(ErrorOf("<a\">" + deep + "\">"), "none");
  EXPECT_NE(ErrorOf("<a=\">" + deep + "\">"), "none");
  EXPECT_NE(ErrorOf("<a x\"=\">\" <!-- \">" + deep + " -->"), "none");
  EXPECT_NE(ErrorOf("<a x='/>'>" + deep), "none");
  EXPECT_NE(ErrorOf("<a x='" + deep), "none");
  EXPECT_NE(ErrorOf("<a><!-- </a></a> -->" + deep), "none");
  EXPECT_NE(ErrorOf("<a>" + deep + "</b></b>"), "none");
  std::string closed;
  for (int i = 0; i < 200'000; ++i) closed += "<b x='/>' ></a>";
  EXPECT_NE(ErrorOf(closed), "none");
}

TEST(XmlDocument, WhatOnlyLooksLikeTagsIsNoDepth) {
  std::string deep;
  for (std::size_t i = 0; i <= maxXmlDepth; ++i) deep += "<b>";
  EXPECT_EQ(ErrorOf("<!-->" + deep + "--><a/>"), "none");
  EXPECT_EQ(ErrorOf("<?>" + deep + "?><a/>"), "none");
  EXPECT_EQ(ErrorOf("<a><![CDATA[" + deep + "]]></a>"), "none");
}

TEST(XmlDocument, TagsHaveProperNames) {
  for (const char character : std::string("\"'=<?!&")) {
    EXPECT_EQ(ErrorOf(std::string("<a>\n<b") + character + "c/></a>"), "line 2: this tag has no proper name")
        << character;
  }
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
  EXPECT_EQ(ErrorOf(std::string("<a/>\n\0<b/>", 10)), "line 2: a control character");
  EXPECT_EQ(ErrorOf("<a x='&#10;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<a x='&#0;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<a/>\n\xC3"), "line 2: this is not UTF-8");
  EXPECT_EQ(ErrorOf("<a x='&#127;'/>"), "line 1: a control character in the attribute 'x'");
  EXPECT_EQ(ErrorOf("<?xml version='1.0' encoding='ISO-8859-1'?><a/>"), "line 1: the encoding has to be UTF-8");
}

}  // namespace
}  // namespace sorvex::settings
