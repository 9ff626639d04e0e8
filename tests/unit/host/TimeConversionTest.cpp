#include <host/TimeConversion.h>

#include <gtest/gtest.h>

#include <cstdint>

namespace WindowsAgentCommon {
namespace {

TEST(TimeConversion, UnixEpochIsZero) { EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'736'000'000'000U), 0); }

TEST(TimeConversion, KnownTimeIsRight) {
  // 2026-11-20 21:10:53 UTC.
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(134'396'826'530'000'000U), 1'795'209'053);
}

TEST(TimeConversion, FractionsAreRoundedDown) {
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'736'009'999'999U), 0);
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'736'010'000'000U), 1);
}

TEST(TimeConversion, FractionsBefore1970AreRoundedDown) {
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'735'999'999'999U), -1);
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'735'990'000'000U), -1);
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(116'444'735'989'999'999U), -2);
}

TEST(TimeConversion, LimitsAreRight) {
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(0), -11'644'473'600);
  EXPECT_EQ(ConvertFiletimeToUnixEpoch(UINT64_MAX), 1'833'029'933'770);
}

}  // namespace
}  // namespace WindowsAgentCommon
