// The time zone in effect, for zones that a test sets.
#include "platform/TimeZone.h"

#include "support/ScopedTimeZone.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>

namespace {

using sorvex::test::ScopedTimeZone;
using VaroCommunicationAPI::Platform::CurrentTimeZone;
using VaroCommunicationAPI::Platform::TimeZone;

struct ZoneInEffect {
  const char* zone;
  TimeZone expected;
};

void PrintTo(const ZoneInEffect& zone, std::ostream* out) { *out << zone.zone; }

class TimeZoneOfProcess : public testing::TestWithParam<ZoneInEffect> {};

TEST_P(TimeZoneOfProcess, IsTheOneInEffect) {
  const ScopedTimeZone set(GetParam().zone);
  const TimeZone zone = CurrentTimeZone();
  EXPECT_EQ(zone.m_strName, GetParam().expected.m_strName);
  EXPECT_EQ(zone.m_nBiasMinutes, GetParam().expected.m_nBiasMinutes);
  EXPECT_EQ(zone.m_bDaylight, GetParam().expected.m_bDaylight);
}

// Daylight time from the first hour of the year until after its last one is in effect whenever the test runs.
INSTANTIATE_TEST_SUITE_P(WithoutDaylightTime, TimeZoneOfProcess,
                         testing::Values(ZoneInEffect{"UTC0", {L"UTC", 0, false}},
                                         ZoneInEffect{"EST5", {L"EST", 300, false}},
                                         ZoneInEffect{"IST-5:30", {L"IST", -330, false}},
                                         ZoneInEffect{"NST3:30", {L"NST", 210, false}}));
INSTANTIATE_TEST_SUITE_P(InDaylightTime, TimeZoneOfProcess,
                         testing::Values(ZoneInEffect{"EST5EDT,0/0,J365/25", {L"EDT", 240, true}},
                                         ZoneInEffect{"CET-1CEST,0/0,J365/25", {L"CEST", -120, true}},
                                         // Half an hour of it.
                                         ZoneInEffect{"LHST-10:30LHDT-11,0/0,J365/25", {L"LHDT", -660, true}},
                                         // The clock goes back for it, as in Ireland in winter.
                                         ZoneInEffect{"IST-1GMT0,0/0,J365/25", {L"GMT", 0, true}}));

TEST(TimeZoneOfProcess, IsReadAnewEachTime) {
  const ScopedTimeZone outer("EST5");
  CurrentTimeZone();
  // Only the module reads the variable meanwhile.
  setenv("TZ", "IST-5:30", 1);
  EXPECT_EQ(CurrentTimeZone().m_nBiasMinutes, -330);
}

}  // namespace
