#include <host/Log.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace WindowsAgentCommon {
namespace {

std::string Escaped(const char* format, std::string_view value) {
  const LogArgument argument(value);
  return FormatText(format, &argument, 1, true);
}

std::string EscapedWide(const char* format, const std::wstring& value) {
  const LogArgument argument(value);
  return FormatText(format, &argument, 1, true);
}

enum class Colour : std::uint8_t { Red = 200 };

TEST(FormatText, CopiesTextWithoutConversions) {
  EXPECT_EQ(Format(""), "");
  EXPECT_EQ(Format("plain \xC3\xA4\n"), "plain \xC3\xA4\n");
}

TEST(FormatText, PrintsSignedNumbers) {
  EXPECT_EQ(Format("%d|%i|%d", 0, -17, INT_MAX), "0|-17|2147483647");
  EXPECT_EQ(Format("%d", INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(Format("%d", static_cast<std::int8_t>(-128)), "-128");
}

TEST(FormatText, PrintsAnUnsignedNumberAsSignedOfItsOwnWidth) {
  EXPECT_EQ(Format("%d", UINT32_MAX), "-1");
  EXPECT_EQ(Format("%d", UINT64_MAX), "-1");
  EXPECT_EQ(Format("%d", std::uint32_t{7}), "7");
}

TEST(FormatText, PrintsAnUnsignedNumberNarrowerThanIntAsItIs) {
  EXPECT_EQ(Format("%d", static_cast<std::uint16_t>(65535)), "65535");
  EXPECT_EQ(Format("%i", static_cast<std::uint8_t>(200)), "200");
}

TEST(FormatText, PrintsASignedNumberAsUnsignedOfItsOwnWidth) {
  EXPECT_EQ(Format("%u", -1), "4294967295");
  EXPECT_EQ(Format("%u", static_cast<std::int16_t>(-1)), "65535");
  EXPECT_EQ(Format("%u", std::int64_t{-1}), "18446744073709551615");
}

TEST(FormatText, PrintsHexadecimalAndOctal) {
  EXPECT_EQ(Format("%x|%X|%o", 0xBEEF, 0xBEEF, 8), "beef|BEEF|10");
  EXPECT_EQ(Format("%#x|%#X|%#o|%#x", 255, 255, 8, 0), "0xff|0XFF|010|0");
  EXPECT_EQ(Format("%x", static_cast<std::int8_t>(-1)), "ff");
}

TEST(FormatText, PrintsBooleansAndEnumerationsAsNumbers) {
  EXPECT_EQ(Format("%d %d %u", true, false, Colour::Red), "1 0 200");
}

TEST(FormatText, PrintsPointers) {
  EXPECT_EQ(Format("%p", reinterpret_cast<const void*>(std::uintptr_t{0x55AA})), "0x55aa");
  EXPECT_EQ(Format("%p", static_cast<const void*>(nullptr)), "0x0");
}

TEST(FormatText, PrintsPercentSigns) { EXPECT_EQ(Format("100%% %d%%", 5), "100% 5%"); }

TEST(FormatText, PrintsNarrowTextsByEveryTextConversion) {
  EXPECT_EQ(Format("%s|%hs|%S|%ls", "a", std::string("b"), std::string_view("c"), "d"), "a|b|c|d");
}

TEST(FormatText, PrintsWideTextsByEveryTextConversion) {
  EXPECT_EQ(Format("%s|%hs|%S|%ls", L"a\x00E4", std::wstring(L"b"), L"c", L"\x20AC"), "a\xC3\xA4|b|c|\xE2\x82\xAC");
}

TEST(FormatText, PrintsNullTextsAsSuch) {
  EXPECT_EQ(Format("%s %S", static_cast<const char*>(nullptr), static_cast<const wchar_t*>(nullptr)), "(null) (null)");
}

TEST(FormatText, KeepsZeroBytesOfTexts) { EXPECT_EQ(Format("%s", std::string("a\0b", 3)), std::string("a\0b", 3)); }

TEST(FormatText, PrintsCharacters) {
  EXPECT_EQ(Format("%c%c%c", 'a', 66, L'\x00E4'), "aB\xC3\xA4");
  EXPECT_EQ(Format("%c", 0x1F600), "\xF0\x9F\x98\x80");
  // A precision is for texts and numbers.
  EXPECT_EQ(Format("%.0c%3.1c", 'a', L'\x00E4'), "a \xC3\xA4");
}

TEST(FormatText, PrintsTheReplacementForWhatIsNoCharacter) {
  EXPECT_EQ(Format("%c%c%c", 0xD800, 0x110000, -129), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

/// What the C library prints.
template <class Value>
std::string Printed(const std::string& format, Value value) {
  char text[64];
  const int length = std::snprintf(text, sizeof text, format.c_str(), value);
  return {text, static_cast<std::size_t>(length)};
}

/// Every set of flags, with every width and precision that makes a difference; "#" only where C defines it.
std::vector<std::string> Directives(std::string_view flags) {
  std::vector<std::string> directives;
  for (unsigned chosen = 0; chosen < 1U << flags.size(); ++chosen) {
    std::string directive = "%";
    for (std::size_t i = 0; i < flags.size(); ++i) {
      if ((chosen >> i & 1) != 0) directive += flags[i];
    }
    for (const char* width : {"", "1", "3", "4", "9"}) {
      for (const char* precision : {"", ".", ".0", ".1", ".2", ".3", ".4", ".7"}) {
        directives.push_back(directive + width + precision);
      }
    }
  }
  return directives;
}

TEST(FormatText, PrintsSignedNumbersAsTheCLibraryDoes) {
  for (const std::string& directive : Directives("-+ 0")) {
    for (const int value : {0, 1, -1, 8, 42, -42, 4711, INT_MAX, INT_MIN}) {
      for (const char conversion : {'d', 'i'}) {
        const std::string format = directive + conversion;
        EXPECT_EQ(Format(format.c_str(), value), Printed(format, value)) << format << " of " << value;
      }
    }
  }
}

TEST(FormatText, PrintsUnsignedNumbersAsTheCLibraryDoes) {
  for (const unsigned value : {0U, 1U, 7U, 8U, 64U, 255U, 4711U, UINT_MAX}) {
    for (const std::string& directive : Directives("-0")) {
      const std::string format = directive + 'u';
      EXPECT_EQ(Format(format.c_str(), value), Printed(format, value)) << format << " of " << value;
    }
    for (const std::string& directive : Directives("-#0")) {
      for (const char conversion : {'x', 'X', 'o'}) {
        const std::string format = directive + conversion;
        // Not every C library prints the zero that the alternate form requires here.
        const bool hasNoDigits = directive.ends_with('.') || directive.ends_with(".0");
        if (value == 0 && conversion == 'o' && hasNoDigits && directive.find('#') != std::string::npos) continue;
        EXPECT_EQ(Format(format.c_str(), value), Printed(format, value)) << format << " of " << value;
      }
    }
  }
}

TEST(FormatText, PrintsOneZeroForAnOctalZeroWithoutDigits) {
  EXPECT_EQ(Format("[%#.0o][%#.o][%#3.0o][%-#3.0o]", 0, 0, 0, 0), "[0][0][  0][0  ]");
}

TEST(FormatText, PrintsTextsAsTheCLibraryDoes) {
  for (const std::string& directive : Directives("-")) {
    for (const char* value : {"", "a", "abc", "abcdef"}) {
      const std::string format = directive + 's';
      EXPECT_EQ(Format(format.c_str(), value), Printed(format, value)) << format << " of " << value;
    }
  }
}

TEST(FormatText, PadsToTheWidth) {
  EXPECT_EQ(Format("[%5d][%-5d][%05d]", 42, 42, 42), "[   42][42   ][00042]");
  EXPECT_EQ(Format("[%5s][%-5s]", "ab", "ab"), "[   ab][ab   ]");
  EXPECT_EQ(Format("[%2s][%1d]", "abc", 100), "[abc][100]");
  EXPECT_EQ(Format("[%08x][%#06x]", 0xABC, 0xAB), "[00000abc][0x00ab]");
}

TEST(FormatText, PutsTheSignBeforeTheZeros) { EXPECT_EQ(Format("%05d %+d % d", -42, 7, 7), "-0042 +7  7"); }

TEST(FormatText, MinusOverridesZero) { EXPECT_EQ(Format("[%-05d]", 42), "[42   ]"); }

TEST(FormatText, PrecisionGivesTheDigitsOfANumber) {
  EXPECT_EQ(Format("%.4d|%8.4d|%-8.4d|%08.4d", 42, 42, -42, 42), "0042|    0042|-0042   |    0042");
  EXPECT_EQ(Format("[%.0d]", 0), "[]");
}

TEST(FormatText, PrecisionCutsATextWithoutSplittingASequence) {
  EXPECT_EQ(Format("%.3s", "abcdef"), "abc");
  EXPECT_EQ(Format("%.0s|%.s", "abc", "abc"), "|");
  EXPECT_EQ(Format("%.2s", "a\xC3\xA4"), "a");
  EXPECT_EQ(Format("%.3s", "a\xC3\xA4z"), "a\xC3\xA4");
}

TEST(FormatText, StarTakesWidthAndPrecisionFromArguments) {
  EXPECT_EQ(Format("[%*d][%-*d][%.*s]", 4, 1, 4, 1, 2, "abc"), "[   1][1   ][ab]");
  EXPECT_EQ(Format("[%*d]", -4, 1), "[1   ]");
  EXPECT_EQ(Format("[%.*d]", -4, 1), "[1]");
}

TEST(FormatText, StarLeavesATextToTheConversion) { EXPECT_EQ(Format("[%*s]", "abc"), "[abc]"); }

TEST(FormatText, WidthAndPrecisionAreBounded) {
  EXPECT_EQ(Format("%99999999999999999999d", 1).size(), 4096U);
  EXPECT_EQ(Format("%*d", INT64_MIN, 1).size(), 4096U);
  EXPECT_EQ(Format("%.*d", INT64_MAX, 1).size(), 4096U);
}

TEST(FormatText, SkipsLengthModifiers) {
  EXPECT_EQ(Format("%hd %hhu %ld %lld %lu %zu %jd %td %I64d %I64u %I32d %Lu", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12),
            "1 2 3 4 5 6 7 8 9 10 11 12");
}

TEST(FormatText, MismatchingArgumentsPrintWhatTheyAre) {
  EXPECT_EQ(Format("%s %s %s", -5, 5U, true), "-5 5 1");
  EXPECT_EQ(Format("%d %u %x %p", "a", "b", L"c", "d"), "a b c d");
  EXPECT_EQ(Format("%s", reinterpret_cast<const void*>(std::uintptr_t{0x10})), "0x10");
  EXPECT_EQ(Format("%c", "text"), "text");
  EXPECT_EQ(Format("%p", 255), "0xff");
}

TEST(FormatText, ConversionWithoutArgumentPrintsItself) {
  EXPECT_EQ(Format("%d and %5.2ls"), "%d and %5.2ls");
  EXPECT_EQ(Format("%d %s", 1), "1 %s");
  EXPECT_EQ(Format("%*d"), "%*d");
}

TEST(FormatText, SurplusArgumentsAreIgnored) { EXPECT_EQ(Format("%d", 1, 2, "three"), "1"); }

TEST(FormatText, WhatIsNoConversionPrintsItself) {
  EXPECT_EQ(Format("%y %d", 1), "%y 1");
  EXPECT_EQ(Format("%n%d", 1), "%n1");
  EXPECT_EQ(Format("50%"), "50%");
  EXPECT_EQ(Format("%-08.3l", 1), "%-08.3l");
}

TEST(FormatText, NullFormatIsHarmless) { EXPECT_EQ(FormatText(nullptr, nullptr, 0, true), "(null)"); }

TEST(FormatText, EscapesControlCharactersOfTexts) {
  EXPECT_EQ(Escaped("%s", "a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(Escaped("%s", std::string_view("\0\x01\x1B\x1F\x7F", 5)), "\\x00\\x01\\x1B\\x1F\\x7F");
}

TEST(FormatText, EscapesFurtherLineEndsAndControlsOfUnicode) {
  EXPECT_EQ(Escaped("%s", "\xC2\x80|\xC2\x85|\xC2\x9F|\xC2\xA0"), "\\xC2\\x80|\\xC2\\x85|\\xC2\\x9F|\xC2\xA0");
  EXPECT_EQ(Escaped("%s", "\xE2\x80\xA7|\xE2\x80\xA8|\xE2\x80\xA9|\xE2\x80\xAA"),
            "\xE2\x80\xA7|\\xE2\\x80\\xA8|\\xE2\\x80\\xA9|\\xE2\\x80\\xAA");
}

TEST(FormatText, EscapesInvalidUtf8ByteByByte) {
  EXPECT_EQ(Escaped("%s", "\xFF|\xC3|\xE2\x82|\xC0\xAF"), "\\xFF|\\xC3|\\xE2\\x82|\\xC0\\xAF");
}

/// UTF-8 of one code point from U+0080 to U+FFFF.
std::string Utf8Of(unsigned codePoint) {
  std::string text;
  if (codePoint >= 0x800) text += static_cast<char>(0xE0 | codePoint >> 12);
  text += static_cast<char>(codePoint >= 0x800 ? 0x80 | (codePoint >> 6 & 0x3F) : 0xC0 | codePoint >> 6);
  return text += static_cast<char>(0x80 | (codePoint & 0x3F));
}

TEST(FormatText, EscapesCharactersThatTurnTheDirectionOfWriting) {
  for (const unsigned codePoint :
       {0x061C, 0x200E, 0x200F, 0x202A, 0x202B, 0x202C, 0x202D, 0x202E, 0x2066, 0x2067, 0x2068, 0x2069}) {
    std::string expected;
    for (const char byte : Utf8Of(codePoint)) expected += Format("\\x%02X", static_cast<unsigned char>(byte));
    EXPECT_EQ(Escaped("%s", Utf8Of(codePoint)), expected);
  }
}

TEST(FormatText, KeepsTheNeighboursOfWhatItEscapes) {
  for (const unsigned codePoint : {0x061B, 0x061D, 0x200D, 0x2010, 0x2027, 0x202F, 0x2065, 0x206A}) {
    EXPECT_EQ(Escaped("%s", Utf8Of(codePoint)), Utf8Of(codePoint));
  }
}

TEST(FormatText, KeepsOtherCharacters) {
  EXPECT_EQ(Escaped("%s", "new \xC3\xA4 \xF0\x9F\x98\x80"), "new \xC3\xA4 \xF0\x9F\x98\x80");
}

TEST(FormatText, EscapesBackslashesSoThatNoValueLooksEscaped) {
  EXPECT_EQ(Escaped("%s", "C:\\new"), "C:\\\\new");
  EXPECT_EQ(Escaped("%s", "\\n"), "\\\\n");
  EXPECT_NE(Escaped("%s", "\\x0A"), Escaped("%s", "\x0A"));
}

TEST(FormatText, KeepsTheFormatsOwnBackslashes) { EXPECT_EQ(Escaped("\\%s", "a"), "\\a"); }

TEST(FormatText, EscapesWideTextsAlike) { EXPECT_EQ(EscapedWide("%S", L"a\nb\x0085"), "a\\nb\\xC2\\x85"); }

TEST(FormatText, EscapesCharacters) {
  const LogArgument arguments[] = {LogArgument('\n'), LogArgument(static_cast<signed char>(-1))};
  EXPECT_EQ(FormatText("%c%c", arguments, 2, true), "\\n\\xFF");
}

TEST(FormatText, EscapedTextIsPaddedAsItIsPrinted) {
  EXPECT_EQ(Escaped("[%4s][", "\n"), "[  \\n][");
  EXPECT_EQ(Escaped("[%-4s][", "\n"), "[\\n  ][");
  EXPECT_EQ(Escaped("[%2s][", "\n\n"), "[\\n\\n][");
}

TEST(FormatText, KeepsTheFormatsOwnLineFeeds) { EXPECT_EQ(Escaped("a\n\t%s", "b"), "a\n\tb"); }

TEST(FormatText, WithoutEscapingTextsStayAsTheyAre) { EXPECT_EQ(Format("%s", "a\nb\xFF"), "a\nb\xFF"); }

}  // namespace
}  // namespace WindowsAgentCommon
