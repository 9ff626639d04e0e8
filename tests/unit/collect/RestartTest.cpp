// What a restarted collector finds.
#include "CollectorFixture.h"
#include "support/WrittenPositions.h"

#include <collect/Positions.h>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using namespace std::string_view_literals;

class CollectAfterRestart : public CollectorFixture {
 protected:
  /// Replaces the positions file by a changed one.
  template <class Change>
  void ChangePositions(Change change) {
    Positions positions;
    ASSERT_TRUE(ReadPositions(ReadPositionsFile(), positions));
    change(positions);
    ownFolder.Write("positions", test::WrittenPositions(positions));
  }
};
INSTANTIATE_TEST_SUITE_P(Modes, CollectAfterRestart, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectAfterRestart, OnlyWhatWasTakenAndSavedIsBehind) {
  Append("a.log", "one\ntwo\nthree\n");
  Start({Files("a.log")});
  Gather();
  collector->Taken(sink.marks[0]);
  collector->Save();
  collector->Taken(sink.marks[1]);
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
}

TEST_P(CollectAfterRestart, WhatWasWrittenMeanwhileIsNotSkipped) {
  Append("a.log", "one\n");
  Start({Files("*.log", false)});
  // Killed before anything was saved except the start of the input.
  Gather();
  collector.reset();
  Append("a.log", "two\n");
  Append("b.log", "new\n");
  Start({Files("*.log", false)});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "new"));
}

TEST_P(CollectAfterRestart, InputsThatAreToldLaterAreKnownStill) {
  Append("a.log", "one\n");
  Start({Files("*.log", false)});
  Deliver();
  collector.reset();
  Append("b.log", "new\n");
  for (int restart = 0; restart < 2; ++restart) {
    Start({});
    EXPECT_THAT(Deliver(), IsEmpty());
  }
  collector->Change({Files("*.log", false)});
  EXPECT_THAT(Gather(), ElementsAre("new"));
}

TEST_P(CollectAfterRestart, RestOfARenamedFileIsFound) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  Append("a.log", "two\npiece");
  Rename("a.log", "a.log.1");
  Append("a.log", "three\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  now += limits.rotatedQuietTime;
  EXPECT_THAT(Gather(), ElementsAre("piece"));
}

TEST_P(CollectAfterRestart, RestOfAFileWithANewNameThatMatchesIsFound) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  collector.reset();
  Append("a.log", "two\npiece");
  Rename("a.log", "a.log.1");
  Append("a.log", "three\n");
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
  now += limits.rotatedQuietTime;
  EXPECT_THAT(Gather(), ElementsAre("piece"));
}

TEST_P(CollectAfterRestart, AnotherFileWithTheNumberOfARenamedOneIsNotRead) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  Append("a.log", "two\n");
  Rename("a.log", "other");
  ChangePositions([](Positions& positions) { positions.places.at(0).head.hash += 1; });
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectAfterRestart, RestOfAFileThatWasRotatedBeforeIsFound) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  Append("a.log", "two\n");
  Rename("a.log", "a.log.1");
  Append("a.log", "three\n");
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
  collector->Save();
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("two", "three"));
}

TEST_P(CollectAfterRestart, TruncatedFileIsReadFromItsStart) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  folder.Write("a.log", "one\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectAfterRestart, FileWithAnotherHeadIsReadFromItsStart) {
  Append("a.log", "one\ntwo\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  folder.Write("a.log", "new\nlonger than before\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("new", "longer than before"));
}

TEST_P(CollectAfterRestart, FileOfTheSameLengthWithAnotherHeadIsReadFromItsStart) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  folder.Write("a.log", "two\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectAfterRestart, FileIsTheSameOnAVolumeOfAnotherNumber) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  ChangePositions([](Positions& positions) { positions.places.at(0).identity.volume += 1; });
  Append("a.log", "two\n");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectAfterRestart, FileOfAnotherBirthIsAnotherFile) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  ChangePositions([](Positions& positions) { positions.places.at(0).identity.birth += 1; });
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectAfterRestart, FileOfAnotherNumberIsAnotherFile) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  ChangePositions([](Positions& positions) { positions.places.at(0).identity.index += 1; });
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectAfterRestart, TruncationIsKnown) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  folder.Write("a.log", "");
  Deliver();
  Positions positions;
  ASSERT_TRUE(ReadPositions(ReadPositionsFile(), positions));
  ASSERT_EQ(positions.places.size(), 1U);
  EXPECT_EQ(positions.places[0].position, 0U);
}

TEST_P(CollectAfterRestart, CopyWithTheNumberOfADeletedFileIsACopyAllTheSame) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  collector.reset();
  Append("a.log", "two\n");
  std::filesystem::copy_file(folder.Path() / "a.log", folder.Path() / "a.log.2");
  std::filesystem::resize_file(folder.Path() / "a.log", 0);
  Append("a.log", "three\n");
  std::error_code error;
  const FileIdentity identity = GetFileStatus(folder.Path() / "a.log.2", error).identity;
  ChangePositions([&](Positions& positions) {
    Place deleted = positions.places.at(0);
    deleted.identity = identity;
    deleted.path = folder.Path() / "a.log.1";
    deleted.head.hash += 1;
    positions.places.push_back(deleted);
  });
  Start({Files("a.log*")});
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("two", "three"));
}

TEST_P(CollectAfterRestart, DamagedPositionsAreKeptAside) {
  Append("a.log", "one\n");
  Append("b.log", "one\n");
  Start({Files("*.log", false)});
  Deliver();
  std::string text = ReadPositionsFile();
  text[text.find("a.log")] = 'c';
  ownFolder.Write("positions", text);
  Append("b.log", "two\n");
  Start({Files("*.log", false)});
  // Intact lines count: the input is known, and so is the other file.
  EXPECT_THAT(Gather(), testing::UnorderedElementsAre("one", "two"));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("positions.corrupt")));
  EXPECT_EQ(test::TemporaryDirectory::Read(ownFolder.Path() / "positions.corrupt"), text);
}

TEST_P(CollectAfterRestart, PositionsThatAreNoneAreAFirstStart) {
  ownFolder.Write("positions", std::string("\0\xFF\n\n", 4));
  Append("a.log", "one\n");
  Start({Files("*.log", false)});
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "two\n");
  EXPECT_THAT(Gather(), ElementsAre("two"));
  EXPECT_EQ(warnings.size(), 1U);
}

TEST_P(CollectAfterRestart, PositionsThatHaveNotChangedAreNotSavedAgain) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Deliver();
  ASSERT_TRUE(std::filesystem::remove(positionsFile));
  Deliver();
  EXPECT_FALSE(std::filesystem::exists(positionsFile));
}

TEST_P(CollectAfterRestart, PositionsThatCannotBeSavedAreLoggedOnce) {
  std::filesystem::create_directory(positionsFile);
  ownFolder.Write("positions/inside", "");
  std::filesystem::create_directory(ownFolder.Path() / "positions.corrupt");
  ownFolder.Write("positions.corrupt/inside", "");
  Append("a.log", "one\n");
  Start({Files("*.log")});
  warnings.clear();
  Deliver();
  collector->Save();
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("positions cannot be saved")));
  std::filesystem::remove_all(positionsFile);
  collector->Save();
  Start({Files("*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectAfterRestart, PositionsThatCannotBeSavedOnceMoreAreLoggedOnceMore) {
  Append("a.log", "");
  Start({Files("*.log")});
  for (int round = 0; round < 2; ++round) {
    std::filesystem::remove_all(positionsFile);
    ownFolder.Write("positions/inside", "");
    Append("a.log", "one\n");
    warnings.clear();
    Deliver();
    EXPECT_THAT(warnings, ElementsAre(HasSubstr("positions cannot be saved")));
    std::filesystem::remove_all(positionsFile);
    collector->Save();
  }
}

TEST_P(CollectAfterRestart, FileThatVanishedMeanwhileIsKnownForAWhile) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  Rename("a.log", "other");
  Start({Files("a.log")});
  EXPECT_THAT(Deliver(), IsEmpty());
  Rename("other", "a.log");
  EXPECT_THAT(Deliver(), IsEmpty());
}

TEST_P(CollectAfterRestart, VanishedFileIsKnownForAWhile) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  Rename("a.log", "other");
  for (int round = 0; round < 3; ++round) {
    Deliver();
    now += limits.rotatedQuietTime;
  }
  Rename("other", "a.log");
  EXPECT_THAT(Deliver(), IsEmpty());
  Rename("a.log", "other");
  for (int round = 0; round < 3; ++round) {
    Deliver();
    now += limits.rotatedQuietTime;
  }
  collector.reset();
  Rename("other", "a.log");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectAfterRestart, VanishedFileIsForgottenAfterAWhile) {
  Append("a.log", "one\n");
  Start({Files("a.log")});
  Deliver();
  collector.reset();
  Rename("a.log", "other");
  wallClock += limits.forgetTime + 1h;
  Start({Files("a.log")});
  Deliver();
  EXPECT_EQ(ReadPositionsFile().find("file "), std::string::npos);
  Rename("other", "a.log");
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectAfterRestart, FileThatVanishedWhileNobodyFollowedItWasSeenAtTheLastSave) {
  Append("a.log", "one\n");
  Append("b.log", "one\n");
  Start({Files("*.log")});
  Deliver();
  wallClock += limits.forgetTime - 1h;
  Append("b.log", "two\n");
  Deliver();
  collector.reset();
  Rename("a.log", "other");
  wallClock += 2h;
  Start({Files("*.log")});
  Deliver();
  Rename("other", "a.log");
  EXPECT_THAT(Gather(), IsEmpty());
}

TEST_P(CollectAfterRestart, SavingKeepsTheTimeAtWhichAFileVanished) {
  Append("a.log", "one\n");
  Append("b.log", "one\n");
  Start({Files("*.log")});
  Deliver();
  collector.reset();
  Rename("a.log", "other");
  wallClock += limits.forgetTime - 1h;
  Start({Files("*.log")});
  Append("b.log", "two\n");
  EXPECT_THAT(Deliver(), ElementsAre("two"));
  collector.reset();
  wallClock += 2h;
  Start({Files("*.log")});
  Deliver();
  Rename("other", "a.log");
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectAfterRestart, PositionsAreSavedOnceADayAlthoughNothingChanges) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Deliver();
  // An agent saves what was delivered: while nothing is, nobody calls `Save`.
  const std::string first = ReadPositionsFile();
  now += 23h;
  wallClock += 23h;
  Gather();
  EXPECT_EQ(ReadPositionsFile(), first);
  now += 1h;
  wallClock += 1h;
  Gather();
  const std::string second = ReadPositionsFile();
  EXPECT_NE(second, first) << "it has the time at which the file was seen";
  now += 23h;
  wallClock += 23h;
  Gather();
  EXPECT_EQ(ReadPositionsFile(), second);
}

TEST_P(CollectAfterRestart, NothingIsSavedWhereNothingIsFollowed) {
  Start({});
  EXPECT_THAT(Deliver(), IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(positionsFile));
}

TEST_P(CollectAfterRestart, RefusedFileHasNoPosition) {
  Append("a.log.1.gz", "\x1F\x8B\x08\0\0\n\n"sv);
  Start({Files("a.log*")});
  EXPECT_THAT(Deliver(), IsEmpty());
  Append("a.log", "one\n");
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  EXPECT_THAT(ReadPositionsFile(), Not(HasSubstr(".gz")));
}

TEST_P(CollectAfterRestart, NumberOfVanishedFilesIsBounded) {
  limits.maxVanished = 2;
  for (const char* const name : {"a.log", "b.log", "c.log"}) Append(name, "one\n");
  Start({Files("*.log")});
  Deliver();
  collector->Change({});
  Deliver();
  const std::string text = ReadPositionsFile();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
}

TEST_P(CollectAfterRestart, FilesThatVanishedFirstAreForgottenFirst) {
  limits.maxVanished = 1;
  for (const char* const name : {"a.log", "b.log", "c.log"}) Append(name, "one\n");
  Start({Files("a.log"), Files("b.log"), Files("c.log")});
  Deliver();
  collector->Change({Files("b.log"), Files("c.log")});
  Deliver();
  wallClock += 1h;
  collector->Change({Files("b.log")});
  Deliver();
  wallClock += 1h;
  collector->Change({});
  Deliver();
  Positions positions;
  ASSERT_TRUE(ReadPositions(ReadPositionsFile(), positions));
  ASSERT_EQ(positions.places.size(), 1U);
  EXPECT_EQ(positions.places[0].path, folder.Path() / "b.log");
}

}  // namespace
}  // namespace sorvex::collect
