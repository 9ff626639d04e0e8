#include <host/Base64.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace WindowsAgentCommon {
namespace {

std::string Decoded(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  EXPECT_TRUE(DecodeBase64(text, bytes)) << text;
  return {bytes.begin(), bytes.end()};
}

bool IsRefused(std::string_view text) {
  std::vector<std::uint8_t> bytes(3, 1);
  return !DecodeBase64(text, bytes) && bytes.empty();
}

TEST(Base64, DecodesTheVectorsOfRfc4648) {
  EXPECT_EQ(Decoded(""), "");
  EXPECT_EQ(Decoded("Zg=="), "f");
  EXPECT_EQ(Decoded("Zm8="), "fo");
  EXPECT_EQ(Decoded("Zm9v"), "foo");
  EXPECT_EQ(Decoded("Zm9vYg=="), "foob");
  EXPECT_EQ(Decoded("Zm9vYmE="), "fooba");
  EXPECT_EQ(Decoded("Zm9vYmFy"), "foobar");
}

TEST(Base64, DecodesEveryCharacterOfTheAlphabet) {
  const unsigned char expected[] = {0x00, 0x10, 0x83, 0x10, 0x51, 0x87, 0x20, 0x92, 0x8B, 0x30, 0xD3, 0x8F,
                                    0x41, 0x14, 0x93, 0x51, 0x55, 0x97, 0x61, 0x96, 0x9B, 0x71, 0xD7, 0x9F,
                                    0x82, 0x18, 0xA3, 0x92, 0x59, 0xA7, 0xA2, 0x9A, 0xAB, 0xB2, 0xDB, 0xAF,
                                    0xC3, 0x1C, 0xB3, 0xD3, 0x5D, 0xB7, 0xE3, 0x9E, 0xBB, 0xF3, 0xDF, 0xBF};
  EXPECT_EQ(Decoded("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"),
            std::string(std::begin(expected), std::end(expected)));
}

TEST(Base64, DecodesBytesOfAllKinds) { EXPECT_EQ(Decoded("AP/+gA=="), std::string("\x00\xFF\xFE\x80", 4)); }

TEST(Base64, SkipsBlanksAround) {
  EXPECT_EQ(Decoded(" \tZm9vYg== \t"), "foob");
  EXPECT_EQ(Decoded("  "), "");
}

TEST(Base64, RefusesWhiteSpaceInsideAndLineBreaks) {
  EXPECT_TRUE(IsRefused("Zm9v Ym Fy"));
  EXPECT_TRUE(IsRefused("Zm9v    YmFy"));
  EXPECT_TRUE(IsRefused("Zm9v\n"));
  EXPECT_TRUE(IsRefused("Zm9v\r\nYmFy"));
  EXPECT_TRUE(IsRefused("Zm9v\nYmFy"));
}

TEST(Base64, RefusesMissingPadding) {
  EXPECT_TRUE(IsRefused("Zg"));
  EXPECT_TRUE(IsRefused("Zg="));
  EXPECT_TRUE(IsRefused("Zm8"));
  EXPECT_TRUE(IsRefused("Zm9vYg"));
}

TEST(Base64, RefusesOtherCharacters) {
  EXPECT_TRUE(IsRefused("Zm9v-"));
  EXPECT_TRUE(IsRefused("Zm_v"));
  EXPECT_TRUE(IsRefused(std::string_view("Zm\0v", 4)));
  EXPECT_TRUE(IsRefused("Zm9v\x80\x80\x80\x80"));
}

TEST(Base64, RefusesPaddingInTheMidst) {
  EXPECT_TRUE(IsRefused("Zg==Zm9v"));
  EXPECT_TRUE(IsRefused("Zm8=Zm8="));
  EXPECT_TRUE(IsRefused("Zg=g"));
  EXPECT_TRUE(IsRefused("Zg==Zg=="));
}

TEST(Base64, RefusesPaddingBeyondAFullGroup) {
  EXPECT_TRUE(IsRefused("Zm9v="));
  EXPECT_TRUE(IsRefused("Zm8=="));
  EXPECT_TRUE(IsRefused("Zg==="));
  EXPECT_TRUE(IsRefused("="));
  EXPECT_TRUE(IsRefused("===="));
  EXPECT_TRUE(IsRefused("Z==="));
}

TEST(Base64, RefusesASingleLeftOverCharacter) {
  EXPECT_TRUE(IsRefused("Z"));
  EXPECT_TRUE(IsRefused("Zm9vY"));
}

}  // namespace
}  // namespace WindowsAgentCommon
