#include "wire/TimeZoneText.h"

#include <gtest/gtest.h>

namespace SSLConfigServerProto {
namespace {

using VaroCommunicationAPI::Platform::TimeZone;

TEST(TimeZoneText, BehindUtcHasAMinus) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"Eastern Standard Time", 300, false}),
            "Eastern Standard Time (UTC - 300) Daylight Savings is not in effect");
}

TEST(TimeZoneText, AheadOfUtcHasAPlus) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"CEST", -120, true}), "CEST (UTC + 120) Daylight Savings is in effect");
}

TEST(TimeZoneText, OnUtcHasAPlus) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"UTC", 0, false}), "UTC (UTC + 0) Daylight Savings is not in effect");
}

TEST(TimeZoneText, OneMinuteDecidesTheSign) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"A", 1, false}), "A (UTC - 1) Daylight Savings is not in effect");
  EXPECT_EQ(TimeZoneText(TimeZone{L"B", -1, false}), "B (UTC + 1) Daylight Savings is not in effect");
}

TEST(TimeZoneText, IsUtf8) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"Mitteleurop\u00E4ische Zeit \u6642", -60, false}),
            "Mitteleurop\xC3\xA4ische Zeit \xE6\x99\x82 (UTC + 60) Daylight Savings is not in effect");
}

TEST(TimeZoneText, WithoutANameBeginsWithABlank) {
  EXPECT_EQ(TimeZoneText(TimeZone{L"", 0, true}), " (UTC + 0) Daylight Savings is in effect");
}

}  // namespace
}  // namespace SSLConfigServerProto
