// Properties of files that Windows does not have.
#include "CollectorFixture.h"
#include "support/OrdinaryUser_posix.h"

#include <sys/stat.h>

namespace sorvex::collect {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class CollectFilesPosix : public CollectorFixture {
 protected:
  static std::size_t CountOpenFiles() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }
};
INSTANTIATE_TEST_SUITE_P(Modes, CollectFilesPosix, testing::ValuesIn(GetModes()), ModeName);

TEST_P(CollectFilesPosix, RefusesPipesOnce) {
  ASSERT_EQ(mkfifo((folder.Path() / "p.log").c_str(), 0600), 0);
  Start({Files("*.log")});
  EXPECT_THAT(Gather(), IsEmpty());
  Append("a.log", "one\n");
  EXPECT_THAT(Gather(), ElementsAre("one"));
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("p.log: is not a regular file")));
}

TEST_P(CollectFilesPosix, TakesNamesThatAreNotUtf8) {
  Append("a\xFF\xFE.log", "one\n");
  Start({Files("a?\xFE.log")});
  EXPECT_THAT(Deliver(), ElementsAre("one"));
  Append("a\xFF\xFE.log", "two\n");
  Start({Files("a*.log")});
  EXPECT_THAT(Gather(), ElementsAre("two"));
}

TEST_P(CollectFilesPosix, FollowsLinks) {
  folder.Write("files/1", "one\n");
  folder.Write("files/2", "two\n");
  std::filesystem::create_symlink("files/1", folder.Path() / "a.log");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), ElementsAre("one"));
  Append("files/1", "more\n");
  EXPECT_THAT(Gather(), ElementsAre("more"));
  // The link leads to another file, as after a rotation.
  Append("files/1", "rest\n");
  std::filesystem::create_symlink("files/2", folder.Path() / "new");
  Rename("new", "a.log");
  EXPECT_THAT(Gather(), ElementsAre("rest", "two"));
}

TEST_P(CollectFilesPosix, WaitsForTheFileOfALink) {
  const test::TemporaryDirectory elsewhere{"elsewhere"};
  std::filesystem::create_symlink(elsewhere.Path() / "target", folder.Path() / "a.log");
  Start({Files("a.log")});
  EXPECT_THAT(Gather(), IsEmpty());
  EXPECT_THAT(warnings, IsEmpty());
  elsewhere.Write("target", "one\n");
  now += limits.pollListInterval;
  EXPECT_THAT(Gather(), ElementsAre("one"));
}

TEST_P(CollectFilesPosix, TriesUnreadableFilesAgain) {
  for (const test::TemporaryDirectory* const directory : {&folder, &ownFolder}) {
    std::filesystem::permissions(directory->Path(), std::filesystem::perms::all);
  }
  const int failedStep = test::CallAsOrdinaryUser([this] {
    Append("a.log", "one\n");
    std::filesystem::permissions(folder.Path() / "a.log", std::filesystem::perms::none);
    Start({Files("a.log")});
    if (!Gather().empty()) return 1;
    now += limits.listInterval;
    if (!Gather().empty()) return 2;
    if (warnings.size() != 1 || warnings[0].find("a.log: cannot be read") == std::string::npos) return 3;
    std::filesystem::permissions(folder.Path() / "a.log", std::filesystem::perms::owner_read);
    return Gather() == Lines{"one"} ? 0 : 4;
  });
  EXPECT_EQ(failedStep, 0);
}

TEST_P(CollectFilesPosix, TriesFollowedFilesAgainThatCannotBeOpened) {
  limits.maxOpenFiles = 0;
  for (const test::TemporaryDirectory* const directory : {&folder, &ownFolder}) {
    std::filesystem::permissions(directory->Path(), std::filesystem::perms::all);
  }
  const int failedStep = test::CallAsOrdinaryUser([this] {
    Append("a.log", "one\n");
    Start({Files("a.log")});
    if (Deliver() != Lines{"one"}) return 1;
    Append("a.log", "two\n");
    std::filesystem::permissions(folder.Path() / "a.log", std::filesystem::perms::none);
    for (int round = 0; round < 2; ++round) {
      if (!Gather().empty()) return 2;
      now += limits.listInterval;
    }
    if (warnings.size() != 1 || warnings[0].find("a.log: cannot be read") == std::string::npos) return 3;
    std::filesystem::permissions(folder.Path() / "a.log", std::filesystem::perms::owner_read);
    return Gather() == Lines{"two"} ? 0 : 4;
  });
  EXPECT_EQ(failedStep, 0);
}

TEST_P(CollectFilesPosix, TriesUnreadableFoldersAgain) {
  for (const test::TemporaryDirectory* const directory : {&folder, &ownFolder}) {
    std::filesystem::permissions(directory->Path(), std::filesystem::perms::all);
  }
  const int failedStep = test::CallAsOrdinaryUser([this] {
    folder.Write("sub/a.log", "one\n");
    std::filesystem::permissions(folder.Path() / "sub", std::filesystem::perms::none);
    Start({Files("sub/*.log")});
    for (int round = 0; round < 2; ++round) {
      if (!Gather().empty()) return 1;
      now += limits.pollListInterval;
    }
    if (warnings.size() != 1 || warnings[0].find("sub: cannot be listed") == std::string::npos) return 2;
    std::filesystem::permissions(folder.Path() / "sub", std::filesystem::perms::owner_all);
    return Gather() == Lines{"one"} ? 0 : 3;
  });
  EXPECT_EQ(failedStep, 0);
}

TEST_P(CollectFilesPosix, KeepsNamesOutOfTheLinesOfTheLog) {
  std::filesystem::create_directory(folder.Path() / "d\n2026 forged.log");
  Start({Files("*.log")});
  Gather();
  EXPECT_THAT(warnings, ElementsAre(HasSubstr("d?2026 forged.log")));
}

TEST_P(CollectFilesPosix, KeepsFewFilesOpen) {
  limits.maxOpenFiles = 10;
  for (int number = 0; number < 200; ++number) Append(std::to_string(number) + ".log", "one\n");
  const std::size_t before = CountOpenFiles();
  Start({Files("*.log")});
  EXPECT_EQ(Deliver().size(), 200U);
  EXPECT_LE(CountOpenFiles(), before + 15);
}

TEST_P(CollectFilesPosix, ClosesFilesThatHaveNotChangedForLong) {
  const std::size_t before = CountOpenFiles();
  for (int number = 0; number < 20; ++number) Append(std::to_string(number) + ".log", "one\n");
  Start({Files("*.log")});
  Deliver();
  EXPECT_GE(CountOpenFiles(), before + 20);
  now += limits.idleCloseTime + limits.listInterval;
  Gather();
  now += limits.listInterval;
  Gather();
  EXPECT_LE(CountOpenFiles(), before + 5);
}

TEST_P(CollectFilesPosix, ClosesUnchangedFilesWhileAnotherIsWritten) {
  const std::size_t before = CountOpenFiles();
  for (int number = 0; number < 20; ++number) Append(std::to_string(number) + ".log", "one\n");
  // So that it is the first one to be opened.
  const auto written = std::filesystem::last_write_time(folder.Path() / "7.log");
  std::filesystem::last_write_time(folder.Path() / "7.log", written - 1h);
  Start({Files("*.log")});
  Deliver();
  for (int round = 0; round < 3; ++round) {
    now += limits.idleCloseTime / 2;
    Append("7.log", "more\n");
    EXPECT_THAT(Deliver(), ElementsAre("more"));
  }
  EXPECT_LE(CountOpenFiles(), before + 5);
}

TEST_P(CollectFilesPosix, ClosesRotatedFilesThatHaveEnded) {
  Append("a.log", "one\n");
  Start({Files("a.log*")});
  Deliver();
  const std::size_t before = CountOpenFiles();
  Rename("a.log", "a.log.1");
  Gather();
  now += limits.rotatedQuietTime;
  Deliver();
  EXPECT_EQ(CountOpenFiles(), before - 1);
  Start({Files("a.log*")});
  Gather();
  EXPECT_EQ(CountOpenFiles(), before - 1);
}

TEST_P(CollectFilesPosix, KeepsPositionsForItsUserAlone) {
  Append("a.log", "one\n");
  Start({Files("*.log")});
  Deliver();
  struct stat status {};
  ASSERT_EQ(stat(positionsFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

}  // namespace
}  // namespace sorvex::collect
