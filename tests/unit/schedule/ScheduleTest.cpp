#include <schedule/Schedule.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace sorvex::schedule {
namespace {

using namespace std::chrono_literals;

/// The largest number that a random function returns.
constexpr double almostOne = 0.999999;

Random Always(double number) {
  return [number] { return number; };
}

TEST(Schedule, FirstRoundIsSpreadOverTheInterval) {
  EXPECT_EQ(Schedule(20s, Always(0)).First(), 0ms);
  EXPECT_EQ(Schedule(20s, Always(0.5)).First(), 10s);
  EXPECT_LT(Schedule(20s, Always(almostOne)).First(), 20s);
}

TEST(Schedule, FirstRoundIsWithinAMinute) {
  EXPECT_EQ(Schedule(1h, Always(0.5)).First(), 30s);
  EXPECT_LT(Schedule(1h, Always(almostOne)).First(), 60s);
}

TEST(Schedule, IntervalsAreAFifthMoreOrLess) {
  EXPECT_EQ(Schedule(100s, Always(0)).AfterSuccess(), 80s);
  EXPECT_EQ(Schedule(100s, Always(0.5)).AfterSuccess(), 100s);
  EXPECT_GT(Schedule(100s, Always(almostOne)).AfterSuccess(), 119s);
}

TEST(Schedule, PausesAfterFailuresGrowToTheInterval) {
  Schedule schedule(300s, Always(0));
  const std::vector<Duration> expected{10s, 20s, 40s, 80s, 160s, 300s, 300s};
  for (const Duration pause : expected) EXPECT_EQ(schedule.AfterFailure(), pause);
}

TEST(Schedule, PausesOfAShortIntervalBeginWithItAndGrowToAMinute) {
  Schedule schedule(1s, Always(0));
  const std::vector<Duration> expected{1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s};
  for (const Duration pause : expected) EXPECT_EQ(schedule.AfterFailure(), pause);
}

TEST(Schedule, PausesAreCutByUpToAHalf) {
  Schedule schedule(300s, Always(almostOne));
  EXPECT_NEAR(std::chrono::duration<double>(schedule.AfterFailure()).count(), 5, 0.01);
  EXPECT_NEAR(std::chrono::duration<double>(schedule.AfterFailure()).count(), 10, 0.01);
}

TEST(Schedule, SuccessMakesPausesShortAgain) {
  Schedule schedule(300s, Always(0));
  schedule.AfterFailure();
  schedule.AfterFailure();
  schedule.AfterSuccess();
  EXPECT_EQ(schedule.AfterFailure(), 10s);
}

TEST(SystemRandom, SpreadsFromZeroToOne) {
  const Random random = SystemRandom();
  std::array<int, 4> quarters{};
  for (int i = 0; i < 1000; ++i) {
    const double number = random();
    ASSERT_GE(number, 0);
    ASSERT_LT(number, 1);
    quarters[static_cast<std::size_t>(number * 4)] += 1;
  }
  EXPECT_THAT(quarters, testing::Each(testing::Gt(100)));
}

TEST(SystemRandom, CopiesDoNotRepeatEachOther) {
  const Random one = SystemRandom();
  const Random copy = one;
  EXPECT_NE(one(), copy());
}

TEST(SystemRandom, IsAnotherEachTime) {
  const Random one = SystemRandom();
  const Random other = SystemRandom();
  bool differs = false;
  for (int i = 0; i < 10; ++i) differs = one() != other() || differs;
  EXPECT_TRUE(differs);
}

}  // namespace
}  // namespace sorvex::schedule
