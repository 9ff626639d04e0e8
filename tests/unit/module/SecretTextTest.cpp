// A secret's memory is wiped to the last byte, however it is freed.
#include "FreedMemory.h"

#include "platform/SecretText.h"

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sorvex::test::FreedMemory;
using VaroCommunicationAPI::Platform::PlainSecret;
using VaroCommunicationAPI::Platform::SecretText;
using VaroCommunicationAPI::Platform::WipePlain;

/// Only blocks of characters are freed in these tests: a single byte of a secret is one too many.
constexpr std::size_t everyByte = 1;
const std::string secret(37, '\xA7');
const std::string other(500, '\xA7');

static_assert(!std::is_convertible_v<std::string_view, SecretText>);
static_assert(!std::is_convertible_v<SecretText, std::string_view>);
static_assert(!std::is_convertible_v<SecretText, std::string>);

TEST(FreedMemory, NoticesOneByte) {
  const FreedMemory freed(secret, everyByte);
  { const std::vector<char> block(10, '\xA7'); }
  { const std::string text = std::string(99, ' ') + '\xA7'; }
  EXPECT_EQ(freed.BlocksWithSecret(), 2);
}

TEST(FreedMemory, NoticesARunFromTheMidstOfTheSecret) {
  const FreedMemory freed("0123456789", 4);
  { const std::string text = std::string(99, ' ') + "567_78_9"; }
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
  { const std::string text = std::string(99, ' ') + "5678"; }
  EXPECT_EQ(freed.BlocksWithSecret(), 1);
}

TEST(SecretText, HoldsItsText) {
  const SecretText text("secret");
  EXPECT_EQ(text.View(), "secret");
  EXPECT_EQ(SecretText().View(), "");
}

TEST(SecretText, IsWipedAtItsEnd) {
  const FreedMemory freed(secret, everyByte);
  { const SecretText text(secret); }
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(SecretText, OfFewCharactersIsWipedWhereItStood) {
  alignas(SecretText) unsigned char place[sizeof(SecretText)] = {};
  const FreedMemory freed(secret, everyByte);
  (new (place) SecretText(std::string_view(secret).substr(0, 3)))->~SecretText();
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
  // No byte of it is in the object itself.
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(place), sizeof place).find("\xA7\xA7\xA7"),
            std::string_view::npos);
}

TEST(SecretText, IsWipedWhenAnotherIsAssigned) {
  const FreedMemory freed(secret, everyByte);
  {
    SecretText text(secret);
    const SecretText longer(other);
    text = longer;
    EXPECT_EQ(text.View(), other);
    EXPECT_EQ(freed.Blocks(), 1);
    text = SecretText(secret);
    EXPECT_EQ(text.View(), secret);
    EXPECT_EQ(freed.Blocks(), 2);
  }
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(SecretText, ThatBecameShorterIsWipedWhole) {
  const FreedMemory freed(secret, everyByte);
  {
    SecretText text(other);
    text = SecretText("x");
    text.Resize(0);
  }
  {
    SecretText text(other);
    text.Resize(1);
  }
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(SecretText, IsWipedWhereItWasBeforeItGrew) {
  const FreedMemory freed(secret, everyByte);
  SecretText text(secret);
  text.Resize(10000);
  EXPECT_EQ(text.View().substr(0, secret.size()), secret);
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(SecretText, MovesItsMemory) {
  const FreedMemory freed(secret, everyByte);
  SecretText text(secret);
  const char* const place = text.Data();
  const SecretText moved = std::move(text);
  EXPECT_EQ(moved.View().data(), place);
  EXPECT_EQ(freed.Blocks(), 0);
}

TEST(SecretText, IsFilledInPlace) {
  SecretText text;
  text.Resize(4);
  secret.copy(text.Data(), 3);
  text.Resize(3);
  EXPECT_EQ(text.View(), secret.substr(0, 3));
}

TEST(WipePlain, OfAStringWipesWhatStandsBehindItsEndToo) {
  const FreedMemory freed(secret, everyByte);
  {
    std::string text(other);
    text.resize(3);
    WipePlain(text);
    EXPECT_EQ(text, "");
  }
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(WipePlain, OfAShortStringWipesTheObjectItself) {
  std::string text(secret, 0, 5);
  WipePlain(text);
  // Its characters only: any byte may occur in its pointer to them.
  EXPECT_EQ(std::string_view(text.data(), text.capacity()).find('\xA7'), std::string_view::npos);
}

TEST(WipePlain, OfBytesWipesWhatStandsBehindTheirEndToo) {
  const FreedMemory freed(secret, everyByte);
  {
    std::vector<std::uint8_t> bytes(500, 0xA7);
    bytes.resize(3);
    WipePlain(bytes);
    EXPECT_TRUE(bytes.empty());
  }
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(PlainSecret, IsWipedAtItsEnd) {
  const FreedMemory freed(secret, everyByte);
  {
    PlainSecret<std::string> text;
    *text = secret;
  }
  EXPECT_EQ(freed.Blocks(), 1);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(WireString, IsWipedAtItsEndAndWhenItIsReplaced) {
  const FreedMemory freed(secret, everyByte);
  {
    SSLConfigServerProto::WireString string;
    SetWireString(string, secret);
    SetWireString(string, other);
    SSLConfigServerProto::WireString moved = std::move(string);
    string = {};
    EXPECT_EQ(moved.View(), other);
  }
  EXPECT_EQ(freed.Blocks(), 2);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

}  // namespace
