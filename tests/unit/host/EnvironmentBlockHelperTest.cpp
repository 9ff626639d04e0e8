#include <host/EnvironmentBlockHelper.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

namespace WindowsAgentCommon {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// One parameter "Key" of the given text, read in each way.
class OneParameter {
 public:
  explicit OneParameter(const std::string& text) : m_parameters{{"Key", text}} {}

  std::pair<bool, bool> Boolean(bool defaultValue) const {
    bool value = !defaultValue;
    const bool found = m_helper.GetBooleanValue("Key", value, defaultValue);
    return {found, value};
  }
  std::pair<bool, std::uint32_t> UInt32() const {
    std::uint32_t value = 1;
    const bool found = m_helper.GetUInt32Value("Key", value, 42);
    return {found, value};
  }
  std::pair<bool, std::uint16_t> UInt16() const {
    std::uint16_t value = 1;
    const bool found = m_helper.GetUInt16Value("Key", value, 42);
    return {found, value};
  }

 private:
  ParameterBlock m_parameters;
  EnvironmentBlockHelper m_helper{m_parameters};
};

// A block is borrowed: a temporary one would be destroyed before the first look-up.
static_assert(std::is_constructible_v<EnvironmentBlockHelper, ParameterBlock&>);
static_assert(std::is_constructible_v<EnvironmentBlockHelper, const ParameterBlock&>);
static_assert(!std::is_constructible_v<EnvironmentBlockHelper, ParameterBlock>);
static_assert(!std::is_constructible_v<EnvironmentBlockHelper, const ParameterBlock>);

TEST(EnvironmentBlockHelper, StringIsTheValueAsItStands) {
  const ParameterBlock parameters{{"Key", "  v\xC3\xA4lue\n"}};
  std::string value;
  EXPECT_TRUE(EnvironmentBlockHelper(parameters).GetStringValue("Key", value, "default"));
  EXPECT_EQ(value, "  v\xC3\xA4lue\n");
}

TEST(EnvironmentBlockHelper, EmptyStringIsAValue) {
  const ParameterBlock parameters{{"Key", ""}};
  std::string value;
  EXPECT_TRUE(EnvironmentBlockHelper(parameters).GetStringValue("Key", value, "default"));
  EXPECT_EQ(value, "");
}

TEST(EnvironmentBlockHelper, AbsentStringIsTheDefault) {
  const ParameterBlock parameters{{"Other", "value"}};
  std::string value;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetStringValue("Key", value, "default"));
  EXPECT_EQ(value, "default");
}

TEST(EnvironmentBlockHelper, KeysAreCaseSensitive) {
  const ParameterBlock parameters{{"key", "value"}};
  std::string value;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetStringValue("Key", value, "default"));
}

TEST(EnvironmentBlockHelper, OfTwoEntriesTheFirstIsRead) {
  ParameterBlock parameters{{"A", "a"}};
  for (const char* text : {"1", "2", "3", "4", "5", "6", "7"}) parameters.emplace("Key", text);
  const EnvironmentBlockHelper helper(parameters);
  std::string value;
  std::uint32_t number = 0;
  EXPECT_TRUE(helper.GetStringValue("Key", value, ""));
  EXPECT_TRUE(helper.GetUInt32Value("Key", number, 0));
  EXPECT_EQ(value, "1");
  EXPECT_EQ(number, 1U);
}

TEST(EnvironmentBlockHelper, ReadsTheBlockAndNoCopy) {
  ParameterBlock parameters;
  const EnvironmentBlockHelper helper(parameters);
  parameters.emplace("Key", "later");
  std::string value;
  EXPECT_TRUE(helper.GetStringValue("Key", value, ""));
  EXPECT_EQ(value, "later");
}

TEST(EnvironmentBlockHelper, WideStringIsConverted) {
  const ParameterBlock parameters{{"Key", "\xC3\xA4\xE2\x82\xAC"}};
  std::wstring value;
  EXPECT_TRUE(EnvironmentBlockHelper(parameters).GetWideStringValue("Key", value, L""));
  EXPECT_EQ(value, L"\x00E4\x20AC");
}

TEST(EnvironmentBlockHelper, AbsentWideStringIsTheDefault) {
  const ParameterBlock parameters;
  std::wstring value;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetWideStringValue("Key", value, L"default"));
  EXPECT_EQ(value, L"default");
}

TEST(EnvironmentBlockHelper, BooleanAcceptsYesInAnyCase) {
  for (const char* text : {"true", "yes", "on", "1", "TRUE", "Yes", "oN"}) {
    EXPECT_EQ(OneParameter(text).Boolean(false), std::pair(true, true)) << text;
  }
}

TEST(EnvironmentBlockHelper, BooleanAcceptsNoInAnyCase) {
  for (const char* text : {"false", "no", "off", "0", "FALSE", "No", "oFf"}) {
    EXPECT_EQ(OneParameter(text).Boolean(true), std::pair(true, false)) << text;
  }
}

TEST(EnvironmentBlockHelper, BooleanIgnoresBlanksAround) {
  EXPECT_EQ(OneParameter(" \tyes\r\n\v\f").Boolean(false), std::pair(true, true));
}

TEST(EnvironmentBlockHelper, BooleanOfAnotherTextIsTheDefault) {
  for (const char* text : {"", " ", "2", "01", "y", "truee", "tru", "t rue", "ja"}) {
    EXPECT_EQ(OneParameter(text).Boolean(true), std::pair(false, true)) << text;
    EXPECT_EQ(OneParameter(text).Boolean(false), std::pair(false, false)) << text;
  }
}

TEST(EnvironmentBlockHelper, AbsentBooleanIsTheDefault) {
  const ParameterBlock parameters;
  bool value = false;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetBooleanValue("Key", value, true));
  EXPECT_TRUE(value);
}

TEST(EnvironmentBlockHelper, UInt32AcceptsItsWholeRange) {
  EXPECT_EQ(OneParameter("0").UInt32(), std::pair(true, std::uint32_t{0}));
  EXPECT_EQ(OneParameter("4294967295").UInt32(), std::pair(true, std::uint32_t{4294967295}));
  EXPECT_EQ(OneParameter(" 00017\t").UInt32(), std::pair(true, std::uint32_t{17}));
}

TEST(EnvironmentBlockHelper, UInt32OfAnotherTextIsTheDefault) {
  for (const char* text : {"", " ", "4294967296", "99999999999999999999999", "-1", "+1", "1.0", "0x10", "1 2", "1a"}) {
    EXPECT_EQ(OneParameter(text).UInt32(), std::pair(false, std::uint32_t{42})) << text;
  }
}

TEST(EnvironmentBlockHelper, AbsentUInt32IsTheDefault) {
  const ParameterBlock parameters;
  std::uint32_t value = 0;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetUInt32Value("Key", value, 7));
  EXPECT_EQ(value, 7U);
}

TEST(EnvironmentBlockHelper, UInt16AcceptsItsWholeRange) {
  EXPECT_EQ(OneParameter("0").UInt16(), std::pair(true, std::uint16_t{0}));
  EXPECT_EQ(OneParameter(" 65535 ").UInt16(), std::pair(true, std::uint16_t{65535}));
}

TEST(EnvironmentBlockHelper, UInt16OfAnotherTextIsTheDefault) {
  for (const char* text : {"", "65536", "-1", "+1", "514/udp", "1e3"}) {
    EXPECT_EQ(OneParameter(text).UInt16(), std::pair(false, std::uint16_t{42})) << text;
  }
}

TEST(EnvironmentBlockHelper, AbsentUInt16IsTheDefault) {
  const ParameterBlock parameters;
  std::uint16_t value = 0;
  EXPECT_FALSE(EnvironmentBlockHelper(parameters).GetUInt16Value("Key", value, 7));
  EXPECT_EQ(value, 7U);
}

TEST(EnvironmentBlockHelper, MatchesWholeKeysInTheBlocksOrder) {
  const ParameterBlock parameters{{"Log.1.Name", "one"},
                                  {"Log.2.Name", "two"},
                                  {"Log.2.Name", "two again"},
                                  {"Log.x.Name", "no"},
                                  {"My.Log.1.Name", "no"}};
  EXPECT_THAT(EnvironmentBlockHelper(parameters).GetValuesForMatchingName(R"(Log\.\d+\.Name)"),
              ElementsAre(Pair("Log.1.Name", "one"), Pair("Log.2.Name", "two"), Pair("Log.2.Name", "two again")));
}

TEST(EnvironmentBlockHelper, MatchesCaseSensitively) {
  const ParameterBlock parameters{{"log", "value"}};
  EXPECT_THAT(EnvironmentBlockHelper(parameters).GetValuesForMatchingName("LOG"), IsEmpty());
}

TEST(EnvironmentBlockHelper, WrongExpressionMatchesNothing) {
  const ParameterBlock parameters{{"(", "value"}, {"[a", "value"}};
  const EnvironmentBlockHelper helper(parameters);
  EXPECT_THAT(helper.GetValuesForMatchingName("("), IsEmpty());
  EXPECT_THAT(helper.GetValuesForMatchingName("[a"), IsEmpty());
  EXPECT_THAT(helper.GetValuesForMatchingName("*"), IsEmpty());
}

TEST(EnvironmentBlockHelper, VeryLongKeyIsMatched) {
  const ParameterBlock parameters{{std::string(1'000'000, 'k'), "value"}};
  const EnvironmentBlockHelper helper(parameters);
  EXPECT_EQ(helper.GetValuesForMatchingName("k.*").size(), 1U);
  EXPECT_EQ(helper.GetValuesForMatchingName("[kl]*").size(), 1U);
  EXPECT_EQ(helper.GetValuesForMatchingName("k.*l").size(), 0U);
}

TEST(EnvironmentBlockHelper, KeyThatTakesTooLongDoesNotMatch) {
  const ParameterBlock parameters{{std::string(64, 'a') + 'b', "long"}, {"aac", "short"}};
  EXPECT_THAT(EnvironmentBlockHelper(parameters).GetValuesForMatchingName("(a|aa|a*)*c"),
              ElementsAre(Pair("aac", "short")));
}

}  // namespace
}  // namespace WindowsAgentCommon
