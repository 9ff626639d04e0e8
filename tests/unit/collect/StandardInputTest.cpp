#include "CollectorFixture.h"
#include "StandardInputPipe.h"
#include "support/WaitUntil.h"

#include <thread>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class CollectStandardInput : public CollectorFixture {
 protected:
  CollectStandardInput() { limits.now = std::chrono::steady_clock::now; }

  static InputSettings StandardInput() {
    InputSettings settings;
    settings.kind = InputSettings::Kind::StandardInput;
    settings.maxLineBytes = 256;
    return settings;
  }

  /// So many lines, for which it waits, and those that come with them.
  Lines GatherLines(std::size_t count) {
    sink.lines.clear();
    sink.marks.clear();
    EXPECT_TRUE(test::WaitUntil([&] {
      while (collector->Collect(sink) == Collector::Progress::More) continue;
      return sink.lines.size() >= count;
    }));
    return sink.lines;
  }

  bool EndsWithoutFiles() {
    return test::WaitUntil([&] {
      collector->Collect(sink);
      return collector->IsAtEnd();
    });
  }

  StandardInputPipe pipe;
};

TEST_F(CollectStandardInput, HandsOutLinesAndTheLastPiece) {
  Start({StandardInput()});
  pipe.Write("one\r\ntw");
  EXPECT_THAT(GatherLines(1), ElementsAre("one"));
  EXPECT_FALSE(collector->IsAtEnd());
  pipe.Write("o\nthree");
  EXPECT_THAT(GatherLines(1), ElementsAre("two"));
  EXPECT_EQ(sink.marks[0].position, 9U);
  pipe.End();
  EXPECT_THAT(GatherLines(1), ElementsAre("three"));
  EXPECT_TRUE(collector->IsAtEnd());
}

TEST_F(CollectStandardInput, IsNotAtEndBeforeAllIsHandedOut) {
  Start({StandardInput()});
  pipe.Write("one\ntwo\n");
  pipe.End();
  sink.room = 1;
  EXPECT_THAT(GatherLines(1), ElementsAre("one"));
  EXPECT_FALSE(collector->IsAtEnd());
  sink.room = 9;
  EXPECT_TRUE(EndsWithoutFiles());
  collector->Rewind();
  EXPECT_FALSE(collector->IsAtEnd());
}

TEST_F(CollectStandardInput, IsNotAtEndWhileThereAreFiles) {
  Start({StandardInput(), Files("*.log")});
  pipe.End();
  Gather();
  EXPECT_FALSE(collector->IsAtEnd());
  collector->Change({StandardInput()});
  EXPECT_TRUE(EndsWithoutFiles());
}

TEST_F(CollectStandardInput, HandsOutAgainWhatWasNotTaken) {
  Start({StandardInput()});
  pipe.Write("one\ntwo\nthree\n");
  GatherLines(3);
  collector->Taken(sink.marks[0]);
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  collector->Taken(sink.marks[1]);
  collector->Rewind();
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_F(CollectStandardInput, SendsLongLinesInPieces) {
  Start({StandardInput()});
  pipe.Write(std::string(600, 'x') + "\n");
  EXPECT_THAT(GatherLines(3), ElementsAre(std::string(256, 'x'), std::string(256, 'x'), std::string(88, 'x')));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("more than 256 bytes")));
}

TEST_F(CollectStandardInput, IsNotReadFurtherThanWhatMayBeLost) {
  Start({StandardInput()});
  constexpr std::size_t lineBytes = 100;
  constexpr std::size_t lineCount = 100'000;
  std::thread writer([this] {
    const std::string line = std::string(lineBytes - 1, 'x') + "\n";
    for (std::size_t count = 0; count < lineCount; ++count) pipe.Write(line);
    pipe.End();
  });
  // Nothing is taken, so that reading stops; what stands in the way is asked for in vain.
  EXPECT_TRUE(test::WaitUntil([&] {
    while (collector->Collect(sink) == Collector::Progress::More) continue;
    return sink.lines.size() * lineBytes >= 4U * 1024 * 1024 - lineBytes;
  }));
  for (int round = 0; round < 20; ++round) collector->Collect(sink);
  EXPECT_LE(sink.lines.size() * lineBytes, 4U * 1024 * 1024 + 256U * 1024);
  std::size_t taken = 0;
  for (collector->Collect(sink); !collector->IsAtEnd(); collector->Collect(sink)) {
    for (; taken < sink.marks.size(); ++taken) collector->Taken(sink.marks[taken]);
    collector->Wait(1h);
  }
  writer.join();
  EXPECT_EQ(sink.lines.size(), lineCount);
  EXPECT_EQ(sink.marks.back().position, lineCount * lineBytes);
}

}  // namespace
}  // namespace sorvex::collect
