#include <schedule/StoppableThread.h>

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace sorvex::schedule {
namespace {

constexpr auto longTime = std::chrono::hours(1);

TEST(StoppableThread, AWaitLastsItsTime) {
  StoppableThread thread;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(thread.WaitForStop(std::chrono::milliseconds(20)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
  EXPECT_FALSE(thread.MustStop());
}

TEST(StoppableThread, AStopEndsAWait) {
  StoppableThread thread;
  std::atomic<bool> isWaiting{false};
  std::atomic<bool> mustStop{false};
  std::atomic<bool> hasEnded{false};
  thread.Start([&] {
    isWaiting = true;
    mustStop = thread.WaitForStop(longTime);
    hasEnded = true;
  });
  EXPECT_TRUE(test::WaitUntil([&] { return isWaiting.load(); }));
  EXPECT_FALSE(hasEnded);
  thread.RequestStop();
  EXPECT_TRUE(test::WaitUntil([&] { return hasEnded.load(); }));
  EXPECT_TRUE(mustStop);
  EXPECT_TRUE(thread.MustStop());
}

TEST(StoppableThread, AStopThatCameFirstLeavesNothingToWaitFor) {
  StoppableThread thread;
  thread.RequestStop();
  std::atomic<bool> hasEnded{false};
  thread.Start([&] { hasEnded = thread.WaitForStop(longTime); });
  EXPECT_TRUE(test::WaitUntil([&] { return hasEnded.load(); }));
}

TEST(StoppableThread, TheDestructorEndsAWaitAndTheThread) {
  std::atomic<bool> hasEnded{false};
  {
    StoppableThread thread;
    thread.Start([&] {
      EXPECT_TRUE(thread.WaitForStop(longTime));
      hasEnded = true;
    });
  }
  EXPECT_TRUE(hasEnded);
}

/// The moments in which a stop can be lost if nothing orders it with the end of a wait.
TEST(StoppableThread, NoStopIsLostWhenAWaitIsEndingAnyway) {
  constexpr int rounds = 500;
  std::atomic<int> ended{0};
  for (int i = 0; i < rounds; ++i) {
    StoppableThread thread;
    thread.Start([&] {
      while (!thread.WaitForStop(std::chrono::milliseconds(1))) {
      }
      ++ended;
    });
    thread.WaitForStop(std::chrono::milliseconds(i % 3));
  }
  EXPECT_EQ(ended, rounds);
}

}  // namespace
}  // namespace sorvex::schedule
