// The time zone in effect, from the system's description.
#include "platform/windows/TimeZoneInformation.h"

#include <gtest/gtest.h>

#include <cwchar>

namespace {

using VaroCommunicationAPI::Platform::TimeZone;
using VaroCommunicationAPI::Platform::TimeZoneInEffect;

TIME_ZONE_INFORMATION Zone(LONG bias, LONG standardBias, LONG daylightBias) {
  TIME_ZONE_INFORMATION zone{};
  zone.Bias = bias;
  zone.StandardBias = standardBias;
  zone.DaylightBias = daylightBias;
  std::wcscpy(zone.StandardName, L"Standard");
  std::wcscpy(zone.DaylightName, L"Daylight");
  return zone;
}

void Expect(const TimeZone& zone, const wchar_t* name, int bias, bool bDaylight) {
  EXPECT_EQ(zone.m_strName, name);
  EXPECT_EQ(zone.m_nBiasMinutes, bias);
  EXPECT_EQ(zone.m_bDaylight, bDaylight);
}

TEST(TimeZoneInEffect, InStandardTimeHasItsBias) {
  Expect(TimeZoneInEffect(TIME_ZONE_ID_STANDARD, Zone(300, 0, -60)), L"Standard", 300, false);
  Expect(TimeZoneInEffect(TIME_ZONE_ID_STANDARD, Zone(-60, 5, -60)), L"Standard", -55, false);
}

TEST(TimeZoneInEffect, InDaylightTimeHasItsBias) {
  Expect(TimeZoneInEffect(TIME_ZONE_ID_DAYLIGHT, Zone(300, 5, -60)), L"Daylight", 240, true);
  // Half an hour of it.
  Expect(TimeZoneInEffect(TIME_ZONE_ID_DAYLIGHT, Zone(-630, 0, -30)), L"Daylight", -660, true);
  // The clock goes back for it.
  Expect(TimeZoneInEffect(TIME_ZONE_ID_DAYLIGHT, Zone(-60, 0, 60)), L"Daylight", 0, true);
}

TEST(TimeZoneInEffect, WithoutDaylightTimeHasTheZonesBiasAlone) {
  Expect(TimeZoneInEffect(TIME_ZONE_ID_UNKNOWN, Zone(-330, 5, -60)), L"Standard", -330, false);
}

TEST(TimeZoneInEffect, OfAnUnknownZoneIsUtc) {
  Expect(TimeZoneInEffect(TIME_ZONE_ID_INVALID, Zone(300, 0, -60)), L"UTC", 0, false);
}

}  // namespace
