#include <collect/Lines.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace sorvex::collect {
namespace {

using namespace std::string_view_literals;

/// All lines of `bytes` in order; `rest` is what is left.
std::vector<std::string> Cut(std::string_view bytes, std::size_t maxBytes, bool isEnd,
                             std::string_view* rest = nullptr) {
  std::vector<std::string> lines;
  while (const std::optional<Line> line = FirstLine(bytes, maxBytes, isEnd)) {
    lines.emplace_back(line->text);
    bytes.remove_prefix(line->size);
  }
  if (rest != nullptr) *rest = bytes;
  return lines;
}

using Strings = std::vector<std::string>;

TEST(FirstLine, EndsAtTheLineFeed) {
  std::string_view rest;
  EXPECT_EQ(Cut("a\n\nbc\nd", 100, false, &rest), (Strings{"a", "", "bc"}));
  EXPECT_EQ(rest, "d");
}

TEST(FirstLine, CountsWhatTheInputEndsWith) {
  EXPECT_EQ(Cut("a\nb", 100, true), (Strings{"a", "b"}));
  EXPECT_EQ(Cut("a\n", 100, true), (Strings{"a"}));
  EXPECT_EQ(Cut("", 100, true), Strings{});
}

TEST(FirstLine, LosesOneCarriageReturnBeforeTheLineFeed) {
  EXPECT_EQ(Cut("a\r\nb\r\r\n\r\nc\rd\n", 100, false), (Strings{"a", "b\r", "", "c\rd"}));
  EXPECT_EQ(Cut("a\r", 100, true), (Strings{"a\r"}));
}

TEST(FirstLine, KeepsZeroBytes) { EXPECT_EQ(Cut("a\0b\n"sv, 100, false), (Strings{std::string("a\0b"sv)})); }

TEST(FirstLine, IsWholeAtItsBound) {
  EXPECT_EQ(Cut("12345678\n9\n", 8, false), (Strings{"12345678", "9"}));
  EXPECT_EQ(Cut("12345678\r\n9\n", 8, false), (Strings{"12345678", "9"}));
  EXPECT_EQ(Cut("12345678", 8, true), (Strings{"12345678"}));
}

TEST(FirstLine, IsCutAboveItsBound) {
  EXPECT_EQ(Cut("123456789\n", 8, false), (Strings{"12345678", "9"}));
  EXPECT_EQ(Cut("123456789\r\n", 8, false), (Strings{"12345678", "9"}));
  EXPECT_EQ(Cut("12345678123456781\n", 8, false), (Strings{"12345678", "12345678", "1"}));
  EXPECT_TRUE(FirstLine("123456789\n", 8, false)->isPiece);
  EXPECT_FALSE(FirstLine("12345678\n", 8, false)->isPiece);
}

TEST(FirstLine, WaitsUntilItIsClearThatALineIsTooLong) {
  EXPECT_FALSE(FirstLine("12345678", 8, false));
  EXPECT_FALSE(FirstLine("12345678\r", 8, false));
  EXPECT_TRUE(FirstLine("12345678\rx", 8, false));
}

TEST(FirstLine, IsNotCutInsideACharacter) {
  EXPECT_EQ(Cut("123456\xE2\x82\xAC"
                "9\n",
                8, false),
            (Strings{"123456",
                     "\xE2\x82\xAC"
                     "9"}));
  EXPECT_EQ(Cut("12345\xF0\x9F\x98\x80"
                "9\n",
                8, false),
            (Strings{"12345",
                     "\xF0\x9F\x98\x80"
                     "9"}));
  // Bytes that are not UTF-8 have no characters to preserve.
  EXPECT_EQ(Cut("\x80\x80\x80\x80\x80\x80\x80\x80\x80\n", 8, false),
            (Strings{"\x80\x80\x80\x80\x80\x80\x80\x80", "\x80"}));
}

}  // namespace
}  // namespace sorvex::collect
