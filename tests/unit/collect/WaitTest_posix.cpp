// What ends a wait where the system reports changes.
#include "CollectorFixture.h"

#include <collect/platform/ChangeWatch.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;

class CollectorWaitPosix : public CollectorFixture {
 protected:
  CollectorWaitPosix() {
    limits.now = std::chrono::steady_clock::now;
    limits.pollInterval = limits.pollListInterval = limits.listInterval = 24h;
  }

  /// Waits and collects until a line comes.
  Lines WaitForLines() {
    sink.lines.clear();
    const auto start = std::chrono::steady_clock::now();
    while (sink.lines.empty() && std::chrono::steady_clock::now() - start < std::chrono::minutes(30)) {
      collector->Wait(1h);
      while (collector->Collect(sink) == Collector::Progress::More) continue;
    }
    return sink.lines;
  }
};

TEST_F(CollectorWaitPosix, EndsWhenAFileIsWrittenOrAppears) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  EXPECT_THAT(WaitForLines(), ElementsAre("one"));
  Append("a.log", "two\n");
  EXPECT_THAT(WaitForLines(), ElementsAre("two"));
  Append("b.log", "three\n");
  EXPECT_THAT(WaitForLines(), ElementsAre("three"));
}

TEST_F(CollectorWaitPosix, EndsWhenTheFileOfALinkIsWritten) {
  const test::TemporaryDirectory elsewhere{"elsewhere"};
  elsewhere.Write("target", "one\n");
  std::filesystem::create_symlink(elsewhere.Path() / "target", folder.Path() / "a.log");
  Start({Files("*.log")});
  EXPECT_THAT(WaitForLines(), ElementsAre("one"));
  std::ofstream(elsewhere.Path() / "target", std::ios::app) << "two\n";
  EXPECT_THAT(WaitForLines(), ElementsAre("two"));
}

TEST_F(CollectorWaitPosix, AfterAWaitThatRanOutNothingHasToSettle) {
  limits.settleTime = 1min;
  Append("a.log", "one\n");
  Start({Files("*.log")});
  // Until only the next listing is due, in a day.
  for (int round = 0; round < 5; ++round) {
    while (collector->Collect(sink) != Collector::Progress::Idle) continue;
    collector->Wait(20ms);
  }
  Append("a.log", "two\n");
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1min);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  collector->Collect(sink);
  EXPECT_THAT(sink.lines, ElementsAre("one", "two"));
}

/// The system limits the inotify instances of a user: 128 by default.
TEST_F(CollectorWaitPosix, WithoutFilesNothingIsTakenOfWhatReportsChanges) {
  const auto count = [] {
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return std::count_if(begin(descriptors), end(descriptors), [](const std::filesystem::directory_entry& entry) {
      std::error_code gone;
      return std::filesystem::read_symlink(entry, gone).native().find("inotify") != std::string::npos;
    });
  };
  Start({});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_EQ(count(), 0);
  collector->Change({Files("*.log")});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_EQ(count(), 1);
}

TEST(ChangeWatch, IsTriedAgainWhereTheSystemHadNoneLeft) {
  ChangeWatch watch;
  const test::TemporaryDirectory folder;
  int number = 0;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int lowestFree = dup(STDIN_FILENO);
  ASSERT_GE(lowestFree, 0);
  close(lowestFree);
  const rlimit none{static_cast<rlim_t>(lowestFree), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const ChangeWatch::Answer answer = watch.Add(folder.Path(), number);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(answer, ChangeWatch::Answer::LimitReached);
  EXPECT_EQ(watch.Add(folder.Path(), number), ChangeWatch::Answer::Watched);
}

Collector* wokenCollector = nullptr;

TEST_F(CollectorWaitPosix, EndsWithAWakeFromASignalHandler) {
  Start({Files("*.log")});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  wokenCollector = collector.get();
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) { wokenCollector->Wake(); };
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &action, &before);
  const auto start = std::chrono::steady_clock::now();
  std::thread thread([] { kill(getpid(), SIGUSR1); });
  collector->Wait(1h);
  collector->Wait(1ms);
  thread.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::minutes(30));
  sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace sorvex::collect
