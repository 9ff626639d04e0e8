// Waiting for something to do.
#include "CollectorFixture.h"

#include <thread>

namespace sorvex::collect {
namespace {

/// Time passes here.
class CollectorWait : public CollectorFixture {
 protected:
  CollectorWait() {
    limits.now = std::chrono::steady_clock::now;
    // Only what a test does ends a wait.
    limits.pollInterval = limits.pollListInterval = limits.listInterval = 24h;
  }

  /// Collects until there is no more to do.
  void Rest() {
    for (int round = 0; round < 50; ++round) {
      while (collector->Collect(sink) == Collector::Progress::More) continue;
      collector->Wait(1ms);
    }
  }

  static bool EndsEarly(std::chrono::steady_clock::time_point start) {
    return std::chrono::steady_clock::now() - start < std::chrono::minutes(30);
  }
};

TEST_F(CollectorWait, EndsAtItsLimit) {
  Start({Files("*.log")});
  Rest();
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(50ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 45ms);
}

TEST_F(CollectorWait, EndsAtItsLimitWhereFilesArePolled) {
  limits.watchFolders = false;
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Rest();
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(50ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 45ms);
}

TEST_F(CollectorWait, EndsWithAWakeThatCameBefore) {
  Start({Files("*.log")});
  Rest();
  collector->Wake();
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1h);
  EXPECT_TRUE(EndsEarly(start));
}

TEST_F(CollectorWait, EndsWithAWakeOfAnotherThread) {
  Start({Files("*.log")});
  Rest();
  for (int round = 0; round < 100; ++round) {
    std::thread thread([this] { collector->Wake(); });
    const auto start = std::chrono::steady_clock::now();
    collector->Wait(1h);
    EXPECT_TRUE(EndsEarly(start));
    thread.join();
  }
}

TEST_F(CollectorWait, IsNoneWhileThereIsMore) {
  limits.bytesPerCall = 1;
  Append("a.log", std::string(1024 * 1024, '\n'));
  Start({Files("*.log")});
  ASSERT_EQ(collector->Collect(sink), Collector::Progress::More);
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1h);
  EXPECT_TRUE(EndsEarly(start));
}

TEST_F(CollectorWait, IsNoneBeforeTheFirstCollectAndAfterARewind) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1h);
  Rest();
  collector->Rewind();
  collector->Wait(1h);
  Rest();
  collector->Change({});
  collector->Wait(1h);
  EXPECT_TRUE(EndsEarly(start));
}

TEST_F(CollectorWait, EndsWithAWakeAfterARefusal) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  sink.room = 0;
  ASSERT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(50ms);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 45ms);
  collector->Wake();
  collector->Wait(1h);
  EXPECT_TRUE(EndsEarly(start));
}

TEST_F(CollectorWait, EndsWhenFilesAreToBePolled) {
  limits.watchFolders = false;
  limits.pollInterval = 20ms;
  Start({Files("*.log")});
  Append("a.log", "one\n");
  Rest();
  sink.lines.clear();
  Append("a.log", "two\n");
  const auto start = std::chrono::steady_clock::now();
  while (sink.lines.empty() && EndsEarly(start)) {
    collector->Wait(1h);
    collector->Collect(sink);
  }
  EXPECT_THAT(sink.lines, testing::ElementsAre("two"));
}

}  // namespace
}  // namespace sorvex::collect
