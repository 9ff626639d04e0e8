// What ends a wait where the system reports changes.
#include "CollectorFixture.h"

#include <collect/platform/ChangeWatch.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
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

  /// Waits and collects until only the next listing is due, in a day.
  void WaitUntilSettled() {
    for (int round = 0; round < 5; ++round) {
      while (collector->Collect(sink) != Collector::Progress::Idle) continue;
      collector->Wait(20ms);
    }
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
  WaitUntilSettled();
  Append("a.log", "two\n");
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1min);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  collector->Collect(sink);
  EXPECT_THAT(sink.lines, ElementsAre("one", "two"));
}

TEST_F(CollectorWaitPosix, EndsAgainOnlyOnceAFileHasSettled) {
  limits.settleTime = 100ms;
  Append("a.log", "0\n");
  Start({Files("*.log")});
  WaitForLines();
  const auto start = std::chrono::steady_clock::now();
  // The second listing may end one wait, and nothing has to settle after that.
  for (const char* const line : {"1", "2", "3", "4", "5"}) {
    Append("a.log", line + std::string("\n"));
    EXPECT_THAT(WaitForLines(), ElementsAre(line));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, 2 * limits.settleTime);
}

TEST_F(CollectorWaitPosix, EndsWithAWakeWhileAFileSettles) {
  limits.settleTime = 10s;
  Append("a.log", "one\n");
  Start({Files("*.log")});
  WaitUntilSettled();
  Append("a.log", "two\n");
  EXPECT_THAT(WaitForLines(), ElementsAre("two"));
  collector->Wake();
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1min);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

TEST_F(CollectorWaitPosix, EndsWhenARotatedFileMayHaveEnded) {
  limits.pollInterval = 10ms;
  limits.rotatedQuietTime = 20ms;
  Append("a.log", "one\npiece");
  Start({Files("a.log")});
  EXPECT_THAT(WaitForLines(), ElementsAre("one"));
  Rename("a.log", "a.log.1");
  EXPECT_THAT(WaitForLines(), ElementsAre("piece"));
}

/// The clock moves only while files are listed.
TEST_F(CollectorWaitPosix, EndsWhenAListingIsAllowedThatTheOneBeforeHasPutOff) {
  std::chrono::milliseconds step = 10ms;
  limits.now = [&] { return now += step; };
  Start({Files("*.log")});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  step = 0ms;
  Append("a.log", "one\n");
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_THAT(sink.lines, testing::IsEmpty());
  const auto start = std::chrono::steady_clock::now();
  collector->Wait(1min);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
  now += 1h;
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_THAT(sink.lines, ElementsAre("one"));
}

/// Looks at the clock show whether files were listed.
TEST_F(CollectorWaitPosix, FilesOfNoInputCauseNoListing) {
  int looks = 0;
  limits.now = [&] {
    ++looks;
    return now;
  };
  Start({Files("*.log")});
  const auto collect = [&] {
    looks = 0;
    while (collector->Collect(sink) != Collector::Progress::Idle) continue;
    return looks;
  };
  collect();
  collect();
  const int idle = collect();
  Append("a.txt", "one\n");
  EXPECT_EQ(collect(), idle);
  Append("a.log", "one\n");
  EXPECT_GT(collect(), idle);
}

/// The system forgets changes when there are too many at once.
TEST_F(CollectorWaitPosix, FilesAreListedWhereTheirChangesWereLost) {
  std::size_t most = 0;
  ASSERT_TRUE(std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most);
  if (most > 1'000'000) GTEST_SKIP() << "this system keeps " << most << " changes";
  Append("a.log", "");
  Start({Files("*.log")});
  WaitUntilSettled();
  // Equal changes count once when they follow each other.
  std::array files{std::ofstream(folder.Path() / "x"), std::ofstream(folder.Path() / "y")};
  for (std::size_t count = 0; count <= most; ++count) files[count % 2] << '.' << std::flush;
  Append("a.log", "one\n");
  EXPECT_THAT(WaitForLines(), ElementsAre("one"));
}

TEST_F(CollectorWaitPosix, FoldersOfInputsThatAreGoneAreNotWatched) {
  const auto count = [] {
    std::size_t watches = 0;
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
      std::ifstream lines(descriptor.path());
      for (std::string line; std::getline(lines, line);) watches += line.starts_with("inotify wd:") ? 1 : 0;
    }
    return watches;
  };
  Start({Files("*.log")});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_EQ(count(), 1U);
  collector->Change({});
  while (collector->Collect(sink) != Collector::Progress::Idle) continue;
  EXPECT_EQ(count(), 0U);
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
