// Which files are followed, and their lines.
#include "CollectorFixture.h"

#include <string_view>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using namespace std::string_view_literals;

class CollectFiles : public CollectorFixture {};
INSTANTIATE_TEST_SUITE_P(Modes, CollectFiles, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectFiles, HandsOutLinesAsTheyAreWritten) {
  Append("a.log", "one\ntw");
  Start({Files("*.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "o\nthree\n");
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
}

TEST_P(CollectFiles, MarksWhereLinesEnd) {
  Append("a.log", "one\r\ntwo\n");
  Start({Files("*.log")});
  Gather();
  ASSERT_EQ(sink.marks.size(), 2U);
  EXPECT_EQ(sink.marks[0].position, 5U);
  EXPECT_EQ(sink.marks[1].position, 9U);
  EXPECT_EQ(sink.marks[0].source, sink.marks[1].source);
}

TEST_P(CollectFiles, BeginsAtTheEndWhenToldSo) {
  Append("a.log", "before\nha");
  Start({Files("*.log", false)});
  EXPECT_THAT(Gather(), IsEmpty());
  // A half-written line is complete later.
  Append("a.log", "lf\nafter\n");
  Append("b.log", "new\n");
  EXPECT_THAT(Gather(), UnorderedElementsAre("half", "after", "new"));
}

TEST_P(CollectFiles, BeginsBeforeTheHalfOfAFirstLine) {
  Append("a.log", "ha");
  Start({Files("*.log", false)});
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "lf\n");
  EXPECT_THAT(Gather(), ElementsAre("half"));
}

TEST_P(CollectFiles, BeginsInsideALineThatIsTooLong) {
  InputSettings settings = Files("*.log", false);
  settings.maxLineBytes = 256;
  Append("a.log", std::string(300, 'x'));
  Start({settings});
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "y\n");
  EXPECT_THAT(Gather(), ElementsAre("y"));
}

TEST_P(CollectFiles, BeginsAtTheEndOfCopiesToo) {
  Append("a.log", "one\n");
  Append("a.log.1", "one\n");
  Start({Files("a.log*", false)});
  for (int round = 0; round < 3; ++round) {
    EXPECT_THAT(Gather(), IsEmpty());
    now += limits.listInterval;
  }
}

TEST_P(CollectFiles, ReadsFilesFirstThatWereWrittenFirst) {
  Append("a.log", "newer\n");
  Append("b.log", "older\n");
  const auto written = std::filesystem::last_write_time(folder.Path() / "b.log");
  std::filesystem::last_write_time(folder.Path() / "b.log", written - 1h);
  Start({Files("a.log"), Files("b.log")});
  EXPECT_THAT(Gather(), ElementsAre("older", "newer"));
}

TEST_P(CollectFiles, FindsFilesThatAppear) {
  Start({Files("logs*/*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
  folder.Write("logs1/a.log", "one\n");
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Append("logs1/b.log", "two\n");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  folder.Write("other/c.log", "three\n");
  Append("logs1/d.txt", "four\n");
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectFiles, WaitsForAFolderThatIsMissing) {
  Start({Files("later/*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
  folder.Write("later/a.log", "one\n");
  now += limits.pollListInterval;
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectFiles, ReadsAFileOnceThatSeveralPatternsName) {
  Start({Files("*.log"), Files("a.*"), Files("b.*")});
  Gather();
  Append("a.log", "one\n");
  std::filesystem::create_hard_link(folder.Path() / "a.log", folder.Path() / "b.log");
  EXPECT_THAT(Gather(), ElementsAre("one"));
  // It is written under either name.
  Append("a.log", "two\n");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  Append("b.log", "three\n");
  EXPECT_THAT(Gather(), ElementsAre("three"));
  Append("c.log", "four\n");
  EXPECT_THAT(Gather(), ElementsAre("four"));
  Append("a.log", "five\n");
  Append("b.log", "six\n");
  EXPECT_THAT(Gather(), ElementsAre("five", "six"));
}

TEST_P(CollectFiles, TakesAnyName) {
  const std::filesystem::path name(u8"gr\u00F6\u00DFe \U0001F600.log");
  Append(name, "one\n");
  Start({Files(u8"gr\u00F6*.log")});
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  Append(name, "two\n");
  Start({Files(u8"gr\u00F6*.log")});
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectFiles, RefusesWhatIsNotAFileOnce) {
  std::filesystem::create_directory(folder.Path() / "d.log");
  Append("a.log", "one\n");
  Start({Files("*.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Append("b.log", "two\n");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("d.log: is not a regular file")));
}

TEST_P(CollectFiles, RefusesCompressedFilesOnce) {
  Append("a.log.1.gz", "\x1F\x8B\x08\0\0\n\n"sv);
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log.1.gz", "more\n");
  Append("a.log", "one\n");
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("is compressed")));
  // It does not count after a restart either.
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectFiles, RefusesEachKindOfCompressedFile) {
  Append("gzip", "\x1F\x8B\x08\0\n"sv);
  Append("bzip2",
         "BZh9"
         "1AY&SY\n"sv);
  Append("xz",
         "\xFD"
         "7zXZ\0\n"sv);
  Append("zstandard", "\x28\xB5\x2F\xFD\n"sv);
  Append("zip", "PK\x03\x04\n"sv);
  Append("text", "BZh9, say\n");
  Start({Files("*")});
  EXPECT_THAT(Gather(), ElementsAre("BZh9, say"));
  EXPECT_EQ(warnings.size(), 5U);
}

TEST_P(CollectFiles, RefusesNoFileForALineInItsMiddle) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Gather();
  Append("a.log", "PK\x03\x04\n");
  EXPECT_THAT(Gather(), ElementsAre("PK\x03\x04"));
}

TEST_P(CollectFiles, ReadsAFileThatIsNoLongerCompressed) {
  Append("a.log", "\x1F\x8B\x08\0\0\n\n"sv);
  Start({Files("*.log")});
  EXPECT_THAT(Deliver(), IsEmpty());
  folder.Write("a.log", "one\n");
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  Start({Files("*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectFiles, SendsLongLinesInPieces) {
  InputSettings settings = Files("*.log");
  settings.maxLineBytes = 256;
  const std::string line = std::string(255, 'x') + "\xC3\xA4" + std::string(300, 'y');
  Append("a.log", line + "\nshort\n" + line);
  Start({settings});
  const std::string second = "\xC3\xA4" + std::string(254, 'y');
  EXPECT_THAT(Gather(),
              ElementsAre(std::string(255, 'x'), second, std::string(46, 'y'), "short", std::string(255, 'x'), second));
  Append("a.log", "\n");
  EXPECT_THAT(Gather(), ElementsAre(std::string(46, 'y')));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("lines of more than 256 bytes")));
}

TEST_P(CollectFiles, BringsTheLengthOfALineIntoItsBounds) {
  InputSettings settings = Files("*.log");
  settings.maxLineBytes = 0;
  Append("a.log", std::string(257, 'x') + "\n");
  Start({settings});
  EXPECT_THAT(Gather(), ElementsAre(std::string(256, 'x'), "x"));
}

TEST_P(CollectFiles, TakesALineThatIsLongerThanATurn) {
  InputSettings settings = Files("*.log");
  settings.maxLineBytes = static_cast<std::size_t>(-1);
  const std::string line(300 * 1024, 'x');
  Append("a.log", line + "\nshort\n");
  Start({settings});
  const Lines lines = Gather();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0] == line);
  EXPECT_EQ(lines[1], "short");
}

TEST_P(CollectFiles, NamesTheFileOfALine) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Gather();
  EXPECT_EQ(collector->GetName(sink.marks.at(0).source), PatternText("a.log"));
  EXPECT_EQ(collector->GetName(sink.marks.at(0).source + 1), "");
}

TEST_P(CollectFiles, HandsOutARefusedLineAgain) {
  Append("a.log", "one\ntwo\nthree\n");
  Start({Files("*.log")});
  sink.room = 1;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  sink.room = 1;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  sink.room = 10;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Idle);
  EXPECT_THAT(sink.lines, ElementsAre("one", "two", "three"));
}

TEST_P(CollectFiles, HandsOutWhatWasWrittenAfterARefusal) {
  Append("a.log", "one\ntwo\n");
  Start({Files("*.log")});
  sink.room = 1;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  Append("a.log", "three\n");
  sink.room = 10;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Idle);
  EXPECT_THAT(sink.lines, ElementsAre("one", "two", "three"));
}

TEST_P(CollectFiles, TakesTheFurthestMark) {
  Append("a.log", "one\ntwo\nthree\n");
  Start({Files("*.log")});
  Gather();
  collector->Taken(sink.marks[1]);
  collector->Taken(sink.marks[0]);
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("three"));
}

TEST_P(CollectFiles, TakesNoMarkBehindWhatWasHandedOut) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Gather();
  collector->Taken({sink.marks[0].source, 1000});
  Append("a.log", "two\n");
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectFiles, HandsOutAgainWhatWasNotTaken) {
  Append("a.log", "one\ntwo\nthree\n");
  Append("b.log", "other\n");
  Start({Files("*.log")});
  Gather();
  for (std::size_t index = 0; index < sink.lines.size(); ++index) {
    if (sink.lines[index] != "two" && sink.lines[index] != "three") collector->Taken(sink.marks[index]);
  }
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
}

/// The line that is refused is far from the start of the file, which comes again.
TEST_P(CollectFiles, HandsOutAgainWhatWasNotTakenAfterARefusal) {
  constexpr std::size_t lineCount = 20'000;
  std::string much;
  for (std::size_t count = 0; count < lineCount; ++count) much += "a line of the large file, forty bytes long\n";
  Append("a.log", much);
  Start({Files("*.log")});
  sink.room = lineCount - 10;
  Gather();
  ASSERT_EQ(sink.lines.size(), lineCount - 10);
  collector->Rewind();
  sink.room = static_cast<std::size_t>(-1);
  EXPECT_EQ(Gather().size(), lineCount);
}

TEST_P(CollectFiles, TakesFilesInTurn) {
  std::string much;
  while (much.size() < 8 * 1024 * 1024) much += "a line of the large file\n";
  Append("a.log", much);
  Append("b.log", "small\n");
  Start({Files("a.log"), Files("b.log")});
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::More);
  EXPECT_LT(sink.lines.size(), much.size() / 25);
  EXPECT_THAT(sink.lines, testing::Contains("small"));
}

TEST_P(CollectFiles, BoundsWhatOneCallHandsOut) {
  limits.bytesPerCall = 1;
  Append("a.log", std::string(1024 * 1024, '\n'));
  Start({Files("*.log")});
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::More);
  EXPECT_LE(sink.lines.size(), 256U * 1024);
}

TEST_P(CollectFiles, FollowsMoreFilesThanAreOpen) {
  limits.maxOpenFiles = 4;
  Start({Files("*.log")});
  for (int number = 0; number < 20; ++number) Append(std::to_string(number) + ".log", "first\n");
  EXPECT_EQ(Gather().size(), 20U);
  for (int number = 0; number < 20; ++number) Append(std::to_string(number) + ".log", "second\n");
  const Lines lines = Gather();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "second"), 20);
  EXPECT_EQ(lines.size(), 20U);
}

}  // namespace
}  // namespace sorvex::collect
