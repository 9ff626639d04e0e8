#include <host/Text.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {
namespace {

/// U+1F600, in as many units as the platform's wide text needs.
const std::wstring GRIN = L"\U0001F600";
const std::string GRIN_UTF8 = "\xF0\x9F\x98\x80";

/// Wide text of the given units, which need not be valid.
std::wstring Units(std::initializer_list<unsigned> units) {
  std::wstring text;
  for (const unsigned unit : units) text += static_cast<wchar_t>(unit);
  return text;
}

/// The conversion of `bytes`, which are so many invalid sequences.
std::wstring Invalid(std::string_view bytes, std::size_t sequences) {
  if (sizeof(wchar_t) == 2) return std::wstring(sequences, L'\xFFFD');
  std::wstring text;
  for (const char byte : bytes) text += static_cast<wchar_t>(0xDC00 + static_cast<unsigned char>(byte));
  return text;
}

TEST(Utf8ToWide, ConvertsSequencesOfEveryLength) {
  EXPECT_EQ(Utf8ToWide("a\xC3\xA4\xE2\x82\xAC" + GRIN_UTF8), L"a\x00E4\x20AC" + GRIN);
}

TEST(Utf8ToWide, ConvertsTheLimitsOfEveryLength) {
  EXPECT_EQ(Utf8ToWide(std::string_view("\x00\x7F", 2)), Units({0x0, 0x7F}));
  EXPECT_EQ(Utf8ToWide("\xC2\x80\xDF\xBF"), Units({0x80, 0x7FF}));
  EXPECT_EQ(Utf8ToWide("\xE0\xA0\x80\xEF\xBF\xBF"), Units({0x800, 0xFFFF}));
  EXPECT_EQ(Utf8ToWide("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), L"\U00010000\U0010FFFF");
  EXPECT_EQ(Utf8ToWide("\xED\x9F\xBF\xEE\x80\x80"), Units({0xD7FF, 0xE000}));
}

TEST(Utf8ToWide, EmptyTextStaysEmpty) { EXPECT_EQ(Utf8ToWide(""), L""); }

TEST(Utf8ToWide, MarksOverlongForms) {
  EXPECT_EQ(Utf8ToWide("\xC0\xAF|"), Invalid("\xC0\xAF", 2) + L"|");
  EXPECT_EQ(Utf8ToWide("\xC1\xBF|"), Invalid("\xC1\xBF", 2) + L"|");
  EXPECT_EQ(Utf8ToWide("\xE0\x9F\xBF|"), Invalid("\xE0\x9F\xBF", 3) + L"|");
  EXPECT_EQ(Utf8ToWide("\xF0\x8F\xBF\xBF|"), Invalid("\xF0\x8F\xBF\xBF", 4) + L"|");
}

TEST(Utf8ToWide, MarksSurrogates) {
  EXPECT_EQ(Utf8ToWide("\xED\xA0\x80|"), Invalid("\xED\xA0\x80", 3) + L"|");
  EXPECT_EQ(Utf8ToWide("\xED\xBF\xBF|"), Invalid("\xED\xBF\xBF", 3) + L"|");
}

TEST(Utf8ToWide, MarksWhatLiesBeyondUnicode) {
  EXPECT_EQ(Utf8ToWide("\xF4\x90\x80\x80|"), Invalid("\xF4\x90\x80\x80", 4) + L"|");
  EXPECT_EQ(Utf8ToWide("\xF5\xFE\xFF|"), Invalid("\xF5\xFE\xFF", 3) + L"|");
}

TEST(Utf8ToWide, MarksATruncatedSequenceOnce) {
  EXPECT_EQ(Utf8ToWide("\xC3"), Invalid("\xC3", 1));
  EXPECT_EQ(Utf8ToWide("\xE2\x82"), Invalid("\xE2\x82", 1));
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\x98"), Invalid("\xF0\x9F\x98", 1));
  EXPECT_EQ(Utf8ToWide("\xE2\x82z"), Invalid("\xE2\x82", 1) + L"z");
  EXPECT_EQ(Utf8ToWide("\xF0\x9F\xC3\xA4"), Invalid("\xF0\x9F", 1) + L"\x00E4");
}

TEST(Utf8ToWide, MarksLoneContinuationBytes) {
  EXPECT_EQ(Utf8ToWide("a\x80\xBFz"), L"a" + Invalid("\x80\xBF", 2) + L"z");
}

TEST(Utf8ToWide, KeepsZeroCharacters) { EXPECT_EQ(Utf8ToWide(std::string_view("a\0b", 3)), std::wstring(L"a\0b", 3)); }

TEST(WideToUtf8, ConvertsCharactersOfEveryLength) {
  EXPECT_EQ(WideToUtf8(L"a\x00E4\x20AC" + GRIN), "a\xC3\xA4\xE2\x82\xAC" + GRIN_UTF8);
}

TEST(WideToUtf8, ConvertsTheLimitsOfEveryLength) {
  EXPECT_EQ(WideToUtf8(Units({0x7F, 0x80, 0x7FF, 0x800, 0xFFFF})), "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
  EXPECT_EQ(WideToUtf8(L"\U00010000\U0010FFFF"), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST(WideToUtf8, ReplacesLoneSurrogates) {
  EXPECT_EQ(WideToUtf8(Units({0xD800, 'a'})),
            "\xEF\xBF\xBD"
            "a");
  EXPECT_EQ(WideToUtf8(Units({'a', 0xDC00})), "a\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(Units({0xDBFF})), "\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(Units({0xDC00, 0xD800})), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(WideToUtf8, ReplacesWhatLiesBeyondUnicode) {
  // Units of two bytes cannot hold such a value.
  if constexpr (sizeof(wchar_t) == 4) {
    EXPECT_EQ(WideToUtf8(Units({0x110000, 0xFFFFFFFF})), "\xEF\xBF\xBD\xEF\xBF\xBD");
  } else {
    EXPECT_EQ(WideToUtf8(Units({0xDBFF, 0xDFFF})), "\xF4\x8F\xBF\xBF");
  }
}

TEST(WideToUtf8, GivesBackBytesThatAreNoUtf8WhereWideTextHasRoomForThem) {
  const std::string bytes = "a\x80\xC3|\xE2\x82\xF5\xFF\xC3\xA4";
  const std::string replaced = "a\xEF\xBF\xBD\xEF\xBF\xBD|\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xC3\xA4";
  EXPECT_EQ(WideToUtf8(Utf8ToWide(bytes)), sizeof(wchar_t) == 4 ? bytes : replaced);
}

TEST(WideToUtf8, GivesNoAsciiByteForALoneSurrogate) {
  EXPECT_EQ(WideToUtf8(Units({0xDC2F, 0xDC7F})), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(Units({0xDD00})), "\xEF\xBF\xBD");
}

TEST(WideToUtf8, EmptyTextStaysEmpty) { EXPECT_EQ(WideToUtf8(L""), ""); }

TEST(Paths, TextBecomesAPathAndBack) {
  const std::wstring text = L"dir \x00E4/file \x65E5" + GRIN + L".log";
  EXPECT_EQ(PathToWide(WideToPath(text)), text);
}

TEST(Paths, PathNamesTheFileInUtf8OrWide) {
  const std::filesystem::path path = WideToPath(L"\x00E4");
  EXPECT_TRUE(path.u8string() == u8"\u00E4");
}

TEST(Paths, ComponentsAreFound) { EXPECT_EQ(PathToWide(WideToPath(L"/a b/\x00E4.log").filename()), L"\x00E4.log"); }

}  // namespace
}  // namespace WindowsAgentCommon
