#include "CollectorFixture.h"
#include "StandardInputPipe.h"
#include "support/WaitUntil.h"

#include <cstddef>
#include <string>

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

  /// Waits for so many lines; returns them and those that come with them.
  Lines GatherLines(std::size_t count) {
    sink.lines.clear();
    sink.marks.clear();
    EXPECT_TRUE(test::WaitUntil([&] {
      while (collector->Collect(sink) == Collector::Progress::More) continue;
      return sink.lines.size() >= count;
    }));
    return sink.lines;
  }

  StandardInputPipe pipe;
};

TEST_F(CollectStandardInput, HandsOutLinesAndTheLastPiece) {
  Start({StandardInput()});
  pipe.Write("one\r\ntw");
  EXPECT_THAT(GatherLines(1), ElementsAre("one"));
  pipe.Write("o\nthree");
  EXPECT_THAT(GatherLines(1), ElementsAre("two"));
  EXPECT_EQ(sink.marks[0].position, 9U);
  pipe.End();
  EXPECT_THAT(GatherLines(1), ElementsAre("three"));
}

TEST_F(CollectStandardInput, IsLeftAloneWhileItIsNoInput) {
  Start({StandardInput()});
  pipe.Write("one\ntwo\n");
  sink.room = 1;
  EXPECT_THAT(GatherLines(1), ElementsAre("one"));
  sink.room = 9;
  collector->Change({Files("*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
  collector->Change({StandardInput()});
  EXPECT_THAT(GatherLines(1), ElementsAre("two"));
  EXPECT_EQ(collector->GetName(sink.marks.at(0).source), "stdin");
}

TEST_F(CollectStandardInput, IsReadWhileAFileNeverEnds) {
  limits.bytesPerCall = 1;
  Start({StandardInput(), Files("*.log")});
  pipe.Write("one\n");
  std::string much;
  while (much.size() < 1024 * 1024) much += std::string(1023, 'x') + "\n";
  EXPECT_TRUE(test::WaitUntil([&] {
    Append("a.log", much);
    sink.lines.clear();
    // Less than what was added.
    for (int call = 0; call < 3; ++call) EXPECT_EQ(collector->Collect(sink), Collector::Progress::More);
    return std::find(sink.lines.begin(), sink.lines.end(), "one") != sink.lines.end();
  }));
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
  constexpr std::size_t blockLines = 320;
  constexpr std::size_t lineBytes = 100;
  constexpr std::size_t blockBytes = blockLines * lineBytes;
  constexpr std::size_t boundBytes = 4 * 1024 * 1024;
  std::string block;
  for (std::size_t count = 0; count < blockLines; ++count) block += std::string(lineBytes - 1, 'x') + "\n";
  Start({StandardInput()});
  std::size_t written = 0;
  while (written < boundBytes) {
    pipe.Write(block);
    written += blockBytes;
    EXPECT_EQ(GatherLines(blockLines).size(), blockLines);
  }
  const Mark last = sink.marks.back();
  EXPECT_EQ(last.position, written);
  // Nothing was taken, so reading has stopped.
  pipe.Write(block);
  EXPECT_THAT(Gather(), IsEmpty());
  collector->Taken(last);
  EXPECT_EQ(GatherLines(blockLines).size(), blockLines);
  EXPECT_EQ(sink.marks.back().position, written + blockBytes);
}

}  // namespace
}  // namespace sorvex::collect
