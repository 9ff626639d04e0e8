// Files that are renamed, deleted and truncated while they are followed.
#include "CollectorFixture.h"

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CollectRotated : public CollectorFixture {
 protected:
  /// Lets a rotated file end.
  Lines GatherAfterQuiet() {
    Gather();
    now += limits.rotatedQuietTime;
    return Gather();
  }

  /// Writes other bytes at another time, also where the system's clock is coarse.
  void Replace(const char* name, std::string_view content) const {
    const std::filesystem::path path = folder.Write(name, content);
    std::filesystem::last_write_time(path, std::filesystem::last_write_time(path) + 1s);
  }
};
INSTANTIATE_TEST_SUITE_P(Modes, CollectRotated, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectRotated, RestOfTheOldFileComesBeforeTheNewOne) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Append("a.log", "two\n");
  Rename("a.log", "a.log.1");
  Append("a.log", "three\n");
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
}

TEST_P(CollectRotated, RestOfTheOldFileComesFirstHoweverLongItIs) {
  for (const char* const pattern : {"a.log", "b.log*"}) {
    const std::string name(pattern, 5);
    Append(name, "one\n");
    Start({Files(pattern)});
    Gather();
    constexpr std::size_t lineCount = 20'000;
    std::string rest;
    for (std::size_t count = 0; count < lineCount; ++count) rest += "a line of the rest, of forty bytes or so\n";
    Append(name, rest);
    Rename(name, name + ".1");
    Append(name, "new\n");
    const Lines lines = Gather();
    ASSERT_EQ(lines.size(), lineCount + 1) << pattern;
    EXPECT_EQ(lines.back(), "new") << pattern;
  }
}

TEST_P(CollectRotated, LinesOfAnEndedFileAreWholeWhenTheyComeAgain) {
  const std::string line = "a line of the old file, of forty bytes";
  constexpr std::size_t lineCount = 20'000;
  std::string content;
  for (std::size_t count = 0; count < lineCount; ++count) content += line + "\n";
  Append("a.log", content + "piece");
  Start({Files("a.log")});
  EXPECT_EQ(Gather().size(), lineCount);
  Rename("a.log", "a.log.1");
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("piece"));
  collector->Rewind();
  const Lines lines = Gather();
  ASSERT_EQ(lines.size(), lineCount + 1);
  EXPECT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line)), lineCount);
  EXPECT_EQ(lines.back(), "piece");
}

TEST_P(CollectRotated, LongLineOfAFileWithoutANameComesInPiecesOnceItsInputIsGone) {
  InputSettings settings = Files("a.log");
  settings.maxLineBytes = 1024 * 1024;
  Append("a.log", "one\n");
  Start({settings});
  Gather();
  Rename("a.log", "old");
  Gather();
  collector->Change({Files("b.log")});
  Append("old", std::string(300 * 1024, 'x') + "\n");
  now += limits.pollInterval;
  const Lines lines = Gather();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].size() + lines[1].size(), 300U * 1024);
}

TEST_P(CollectRotated, OldFileIsFollowedAsLongAsItIsWritten) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  Rename("a.log", "a.log.1");
  Append("a.log", "new\n");
  EXPECT_THAT(Gather(), ElementsAre("new"));
  Append("a.log.1", "late\n");
  now += limits.pollInterval;
  EXPECT_THAT(Gather(), ElementsAre("late"));
}

TEST_P(CollectRotated, LastPieceOfTheOldFileIsALineOnceTheFileIsQuiet) {
  Append("a.log", "one\npie");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Rename("a.log", "a.log.1");
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log.1", "ce");
  now += limits.pollInterval;
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("piece"));
  EXPECT_THAT(GatherAfterQuiet(), IsEmpty());
  // Its writer was not done after all.
  Append("a.log.1", "more");
  now += limits.pollInterval;
  EXPECT_THAT(Gather(), IsEmpty());
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("more"));
}

TEST_P(CollectRotated, FileThatKeepsMatchingIsReadOnce) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  Append("a.log", "two\npie");
  Rename("a.log", "a.log.1");
  Append("a.log", "three\n");
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  Rename("a.log.1", "a.log.2");
  Rename("a.log", "a.log.1");
  Append("a.log", "four\n");
  EXPECT_THAT(Gather(), ElementsAre("four"));
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("pie"));
  Deliver();
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three", "four"));
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("pie"));
}

TEST_P(CollectRotated, LatePieceOfARotatedFileIsALineToo) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Gather();
  Rename("a.log", "a.log.1");
  for (int round = 0; round < 2; ++round) EXPECT_THAT(GatherAfterQuiet(), IsEmpty());
  // It has ended, so it seemed.
  Append("a.log.1", "late");
  EXPECT_THAT(Gather(), IsEmpty());
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("late"));
}

TEST_P(CollectRotated, DeletedFileIsReadToItsEnd) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  Append("a.log", "two\nthree");
  std::filesystem::remove(folder.Path() / "a.log");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("three"));
}

TEST_P(CollectRotated, DeletedFileIsForgottenOnceDelivered) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  std::filesystem::remove(folder.Path() / "a.log");
  GatherAfterQuiet();
  // What was not delivered can still be passed on.
  collector->Rewind();
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  now += limits.pollInterval;
  Deliver();
  EXPECT_EQ(ReadPositionsFile().find("file "), std::string::npos);
}

TEST_P(CollectRotated, DeletedFileIsKeptUntilItsLinesAreDelivered) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  // Long enough to be closed.
  for (int round = 0; round < 2; ++round) {
    now += limits.idleCloseTime;
    Gather();
  }
  std::filesystem::remove(folder.Path() / "a.log");
  EXPECT_THAT(Gather(), IsEmpty());
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectRotated, ClosedFileIsFoundUnderItsNewName) {
  limits.maxOpenFiles = 0;
  Append("a.log", "one\n");
  Start({Files("a.log")});
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  Append("a.log", "two\n");
  Rename("a.log", "elsewhere");
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectRotated, FileWithoutANameStaysOpen) {
  limits.maxOpenFiles = 0;
  const test::TemporaryDirectory elsewhere{"elsewhere"};
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  Rename("a.log", "a.log.1");
  Append("a.log", "new\n");
  EXPECT_THAT(Gather(), ElementsAre("new"));
  std::filesystem::rename(folder.Path() / "a.log.1", elsewhere.Path() / "a.log.1");
  std::ofstream(elsewhere.Path() / "a.log.1", std::ios::binary | std::ios::app) << "late\n";
  now += limits.pollInterval;
  EXPECT_THAT(Gather(), ElementsAre("late"));
}

TEST_P(CollectRotated, ShorterFileIsReadFromItsStart) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log")});
  Gather();
  const Mark before = sink.marks.back();
  folder.Write("a.log", "new\n");
  EXPECT_THAT(Gather(), ElementsAre("new"));
  EXPECT_NE(sink.marks[0].source, before.source);
  EXPECT_EQ(sink.marks[0].position, 4U);
  // Its lines are another file's.
  collector->Taken(before);
  collector->Rewind();
  EXPECT_THAT(Gather(), ElementsAre("new"));
}

TEST_P(CollectRotated, ShorterFileOfTheSameHeadIsReadFromItsStart) {
  Append("a.log", std::string(1999, 'x') + "\n" + std::string(1000, 'y') + "\n");
  Start({Files("a.log")});
  Gather();
  std::filesystem::resize_file(folder.Path() / "a.log", 2000);
  EXPECT_THAT(Gather(), ElementsAre(std::string(1999, 'x')));
}

TEST_P(CollectRotated, FileWithAnotherHeadIsReadFromItsStart) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log")});
  Gather();
  folder.Write("a.log", "new\nlonger than before\n");
  EXPECT_THAT(Gather(), ElementsAre("new", "longer than before"));
}

TEST_P(CollectRotated, FileOfTheSameLengthWithAnotherHeadIsReadFromItsStart) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  Replace("a.log", "two\n");
  // Before the next listing.
  now += limits.pollInterval;
  sink.lines.clear();
  collector->Collect(sink);
  EXPECT_THAT(sink.lines, ElementsAre("two"));
}

TEST_P(CollectRotated, ClosedFileOfTheSameLengthWithAnotherHeadIsReadFromItsStart) {
  limits.maxOpenFiles = 0;
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  Replace("a.log", "two\n");
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectRotated, FileThatWasBegunAtItsEndIsReadFromItsStartWithAnotherHead) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log", false)});
  EXPECT_THAT(Gather(), IsEmpty());
  folder.Write("a.log", "new\nlonger than before\n");
  EXPECT_THAT(Gather(), ElementsAre("new", "longer than before"));
}

TEST_P(CollectRotated, UnfinishedLineMayBecomeAnother) {
  Append("a.log", "one\nab");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  folder.Write("a.log", "one\ncd\n");
  EXPECT_THAT(Gather(), ElementsAre("cd"));
}

TEST_P(CollectRotated, EmptiedFileIsReadAgain) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "one\n");
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectRotated, CopyIsReadOnFromWhereTheOriginalWas) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log*")});
  Deliver();
  Append("a.log", "three\n");
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.1");
  folder.Write("a.log", "four\n");
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("three", "four"));
}

TEST_P(CollectRotated, CopyWhoseNameAlsoExtendsAnEarlierCopysIsReadOn) {
  Append("a.log", "one\n");
  Append("a.log.1", "zero\n");
  Start({Files("a.log*")});
  Deliver();
  Append("a.log", "two\n");
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.10");
  folder.Write("a.log", "three\n");
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

TEST_P(CollectRotated, CopyWhoseNameAlsoExtendsAnEarlierCopysIsNotReadBeforeItsOriginalIsTruncated) {
  Append("a.log", "one\ntwo\n");
  Append("a.log.1", "zero\n");
  Start({Files("a.log*")});
  Gather();
  for (const char* const piece : {"", "one\nt", "wo\n"}) {
    Append("a.log.10", piece);
    EXPECT_THAT(Gather(), IsEmpty());
  }
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectRotated, CopyIsReadOnceWheneverItIsFinishedAndItsOriginalTruncated) {
  std::filesystem::path original;
  std::filesystem::path copy;
  int readings = 0;  // of the clock, until the copy is finished
  limits.now = [&] {
    if (readings > 0 && --readings == 0) {
      folder.Write(copy.filename(), test::TemporaryDirectory::Read(original));
      std::ofstream(original, std::ios::binary) << "three\n";
    }
    return now;
  };
  int finished = 0;
  for (int reading = 1; reading <= 20; ++reading) {
    const std::string name = "a" + std::to_string(reading) + ".log";
    original = folder.Path() / name;
    copy = folder.Path() / (name + ".10");
    Append(name, "one\n");
    Append(name + ".1", "zero\n");
    Start({Files(name + "*")});
    Deliver();
    Append(name, "two\n");
    Append(name + ".1", "more\n");
    Append(name + ".10", "on");
    readings = reading;
    Lines lines = Gather();
    if (readings == 0) ++finished;
    readings = 0;
    for (const std::string& line : Gather()) lines.push_back(line);
    if (finished < reading) break;
    EXPECT_THAT(lines, testing::UnorderedElementsAre("two", "more", "three")) << reading;
  }
  EXPECT_GE(finished, 8);
}

TEST_P(CollectRotated, CopyOfACopyIsReadOnceAmongTheirNames) {
  Append("a.log", "zero\n");
  Append("a.log.1", "one\n");
  Start({Files("a.log*")});
  Deliver();
  Append("a.log.1", "two\n");
  std::filesystem::copy_file(folder.Path() / "a.log.1", folder.Path() / "a.log.1.old");
  folder.Write("a.log.1", "three\n");
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

TEST_P(CollectRotated, LastPieceOfACopyIsALineOnceTheCopyIsQuiet) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  Append("a.log", "two\npiece");
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.1");
  folder.Write("a.log", "three\n");
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
  EXPECT_THAT(GatherAfterQuiet(), ElementsAre("piece"));
}

TEST_P(CollectRotated, OnlyOneCopyIsReadOn) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  Append("a.log", "two\n");
  for (const char* const copy : {"a.log.1", "a.log.2"}) {
    std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / copy);
  }
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "one", "two"));
}

TEST_P(CollectRotated, CopyThatAppearsLongAfterTheTruncationIsAFileOfItsOwn) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Gather();
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), IsEmpty());
  now += limits.rotatedQuietTime + 1ms;
  Append("a.log.1", "one\n");
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectRotated, CopyThatGrowsSlowlyIsNotReadBeforeItsOriginalIsTruncated) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log*")});
  Gather();
  Append("a.log.1", "");
  EXPECT_THAT(Gather(), IsEmpty());
  now += limits.listInterval;
  EXPECT_THAT(Gather(), IsEmpty());
  for (const char* const piece : {"one\nt", "wo", "\n"}) {
    Append("a.log.1", piece);
    EXPECT_THAT(Gather(), IsEmpty());
    now += limits.rotatedQuietTime / 2;
  }
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectRotated, FileThatOnlyBeginsLikeAnotherIsNoCopy) {
  const std::string first(2000, 'x');
  Append("a.log", first + "\none\n");
  Start({Files("a.log*")});
  Gather();
  Append("a.log.err", first + "\ntwo\n");
  EXPECT_THAT(Gather(), ElementsAre(first, "two"));
}

TEST_P(CollectRotated, CopyIsNotReadBeforeItsOriginalIsTruncated) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log*")});
  Gather();
  const Mark first = sink.marks[0];
  // The copy grows while it is made.
  for (const char* const piece : {"", "one\nt", "wo\n"}) {
    Append("a.log.1", piece);
    EXPECT_THAT(Gather(), IsEmpty());
  }
  folder.Write("a.log", "");
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "three\n");
  EXPECT_THAT(Gather(), ElementsAre("three"));
  // Lines passed on from the original are repeated from the copy.
  collector->Taken(first);
  collector->Rewind();
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

TEST_P(CollectRotated, CopyIsReadOnceWhenItsOriginalWasRefusedFromItsFirstLine) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  sink.room = 0;
  EXPECT_EQ(collector->Collect(sink), Collector::Progress::Refused);
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.1");
  std::filesystem::resize_file(folder.Path() / "a.log", 0);
  Append("a.log", "two\n");
  sink.room = 10;
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("one", "two"));
}

TEST_P(CollectRotated, CopyIsKnownAfterARestart) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  collector.reset();
  Append("a.log", "two\n");
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.1");
  folder.Write("a.log", "");
  Append("a.log", "three\n");
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

/// Names are looked at in the order in which the files were written.
TEST_P(CollectRotated, CopyIsKnownAfterARestartAmongOtherFiles) {
  const std::vector<std::string> oldestFirst{"a.log", "a.log.x", "b.log", "c.log.1",
                                             "d.log", "e.log",   "f.log", "c.log"};
  for (const std::string& name : oldestFirst) {
    if (name != "c.log.1") Append(name, "one\n");
  }
  Start({Files("*.log*")});
  Deliver();
  collector.reset();
  Append("c.log", "two\n");
  std::filesystem::copy_file(folder.Path() / "c.log", folder.Path() / "c.log.1");
  folder.Write("c.log", "");
  Append("c.log", "three\n");
  auto written = std::filesystem::last_write_time(folder.Path() / "c.log") - 1h;
  for (const std::string& name : oldestFirst) std::filesystem::last_write_time(folder.Path() / name, written += 1min);
  Start({Files("*.log*")});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

TEST_P(CollectRotated, CopyWhoseOriginalStaysIsAFileOfItsOwn) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Gather();
  Append("a.log.copy", "one\n");
  EXPECT_THAT(Gather(), IsEmpty());
  now += limits.rotatedQuietTime;
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectRotated, FileWithALongerNameIsNoCopyAfterATruncation) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Gather();
  folder.Write("a.log", "");
  Append("a.log.err", "another file\n");
  EXPECT_THAT(Gather(), ElementsAre("another file"));
}

TEST_P(CollectRotated, FileWithALongerNameIsNoCopy) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Gather();
  Append("a.log.err", "");
  Gather();
  Append("a.log.err", "other\n");
  EXPECT_THAT(Gather(), ElementsAre("other"));
}

TEST_P(CollectRotated, AnotherFileOfTheSameNameIsReadWhole) {
  // Not every system lets an open file be replaced.
  limits.maxOpenFiles = 0;
  Append("a.log", "one\n");
  Start({Files("a.log")});
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  folder.Write("a.log.new", "one\ntwo\n");
  Rename("a.log.new", "a.log");
  EXPECT_THAT(Gather(), ElementsAre("one", "two"));
}

TEST_P(CollectRotated, AnotherFileIsNotTakenForAClosedOneBeforeTheNextListing) {
  limits.maxOpenFiles = 0;
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Gather();
  folder.Write("a.log.new", "two\n");
  Rename("a.log.new", "a.log");
  collector->Rewind();
  sink.lines.clear();
  for (int round = 0; round < 3; ++round) collector->Collect(sink);
  EXPECT_THAT(sink.lines, ElementsAre("two"));
  EXPECT_THAT(Gather(), IsEmpty());
}

}  // namespace
}  // namespace sorvex::collect
