// What ends a wait where the system reports changes, and standard input.
#include "CollectorFixture.h"

#include <signal.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

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
    while (sink.lines.empty() && std::chrono::steady_clock::now() - start < 30min) {
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
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30min);
  sigaction(SIGUSR1, &before, nullptr);
}

/// Standard input is a pipe.
class CollectStandardInput : public CollectorFixture {
 protected:
  CollectStandardInput() : m_before(dup(STDIN_FILENO)) {
    EXPECT_EQ(pipe(m_pipe.data()), 0);
    dup2(m_pipe[0], STDIN_FILENO);
    close(m_pipe[0]);
  }
  ~CollectStandardInput() override {
    End();
    dup2(m_before, STDIN_FILENO);
    close(m_before);
  }

  static InputSettings StandardInput() {
    InputSettings settings;
    settings.kind = InputSettings::Kind::StandardInput;
    settings.maxLineBytes = 256;
    return settings;
  }

  void Write(std::string_view bytes) const {
    ASSERT_EQ(write(m_pipe[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void End() {
    if (m_pipe[1] >= 0) close(m_pipe[1]);
    m_pipe[1] = -1;
  }

 private:
  const int m_before;
  std::array<int, 2> m_pipe{-1, -1};
};

TEST_F(CollectStandardInput, HandsOutLinesAndTheLastPiece) {
  Start({StandardInput()});
  Write("one\r\ntw");
  EXPECT_THAT(Gather(), ElementsAre("one"));
  EXPECT_FALSE(collector->IsAtEnd());
  Write("o\nthree");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  EXPECT_EQ(sink.marks[0].position, 9U);
  End();
  EXPECT_THAT(Gather(), ElementsAre("three"));
  EXPECT_TRUE(collector->IsAtEnd());
}

TEST_F(CollectStandardInput, IsNotAtEndBeforeAllIsHandedOut) {
  Start({StandardInput()});
  Write("one\ntwo\n");
  End();
  sink.room = 1;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  EXPECT_FALSE(collector->IsAtEnd());
  sink.room = 9;
  Gather();
  EXPECT_TRUE(collector->IsAtEnd());
  collector->Rewind();
  EXPECT_FALSE(collector->IsAtEnd());
}

TEST_F(CollectStandardInput, IsNotAtEndWhileThereAreFiles) {
  Start({StandardInput(), Files("*.log")});
  End();
  Gather();
  EXPECT_FALSE(collector->IsAtEnd());
  collector->Change({StandardInput()});
  Gather();
  EXPECT_TRUE(collector->IsAtEnd());
}

TEST_F(CollectStandardInput, HandsOutAgainWhatWasNotTaken) {
  Start({StandardInput()});
  Write("one\ntwo\nthree\n");
  Gather();
  collector->Taken(sink.marks[0]);
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  collector->Taken(sink.marks[1]);
  collector->Rewind();
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_F(CollectStandardInput, SendsLongLinesInPieces) {
  Start({StandardInput()});
  Write(std::string(600, 'x') + "\n");
  EXPECT_THAT(Gather(), ElementsAre(std::string(256, 'x'), std::string(256, 'x'), std::string(88, 'x')));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("more than 256 bytes")));
}

TEST_F(CollectStandardInput, IsNotReadFurtherThanWhatMayBeLost) {
  Start({StandardInput()});
  constexpr std::size_t lineBytes = 100;
  constexpr std::size_t lineCount = 100'000;
  std::thread writer([this] {
    const std::string line = std::string(lineBytes - 1, 'x') + "\n";
    for (std::size_t count = 0; count < lineCount; ++count) Write(line);
    End();
  });
  // Nothing is taken, so that reading stops.
  std::size_t before = 0;
  do {
    before = sink.lines.size();
    for (int round = 0; round < 20; ++round) {
      while (collector->Collect(sink) == Collector::Progress::More) continue;
      collector->Wait(10ms);
    }
  } while (sink.lines.size() != before);
  EXPECT_GE(sink.lines.size() * lineBytes, 4U * 1024 * 1024 - 64 * 1024);
  EXPECT_LE(sink.lines.size() * lineBytes, 5U * 1024 * 1024);
  std::size_t taken = 0;
  while (!collector->IsAtEnd()) {
    for (; taken < sink.marks.size(); ++taken) collector->Taken(sink.marks[taken]);
    collector->Collect(sink);
    collector->Wait(1h);
  }
  writer.join();
  EXPECT_EQ(sink.lines.size(), lineCount);
}

}  // namespace
}  // namespace sorvex::collect
