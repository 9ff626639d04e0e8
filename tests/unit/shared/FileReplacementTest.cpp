#include "support/TemporaryDirectory.h"

#include <shared/platform/FileReplacement.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <system_error>
#include <vector>

namespace sorvex {
namespace {

using test::TemporaryDirectory;

std::vector<std::string> Names(const TemporaryDirectory& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

TEST(FileReplacement, TakesThePlaceOfTheOldFile) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  {
    FileReplacement file(path);
    file.Write("new ");
    file.Write("text");
    EXPECT_EQ(TemporaryDirectory::Read(path), "old");
    file.Flush();
    file.Commit();
    EXPECT_EQ(TemporaryDirectory::Read(path), "new text");
  }
  EXPECT_THAT(Names(directory), testing::ElementsAre("file"));
}

TEST(FileReplacement, TakesThePlaceOfAFileThatSomebodyReadsForAMoment) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  std::ifstream reader(path);
  FileReplacement file(path, FileReplacement::Readers::Owner);
  file.Write("new");
  auto committed = std::async(std::launch::async, [&file] { file.Commit(); });
  // At once on systems where a file in use can be replaced.
  committed.wait_for(std::chrono::milliseconds(20));
  reader.close();
  EXPECT_NO_THROW(committed.get());
  EXPECT_EQ(TemporaryDirectory::Read(path), "new");
}

TEST(FileReplacement, LeavesNothingWithoutCommit) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  { FileReplacement(path).Write("new"); }
  EXPECT_EQ(TemporaryDirectory::Read(path), "old");
  EXPECT_THAT(Names(directory), testing::ElementsAre("file"));
}

TEST(FileReplacement, KeepsAFileThatIsThereWhenToldSo) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  {
    FileReplacement file(path, FileReplacement::Readers::Owner);
    file.Write("new");
    try {
      file.Commit(FileReplacement::Existing::Keep);
      ADD_FAILURE() << "the old file was replaced";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().default_error_condition(), std::errc::file_exists);
    }
  }
  EXPECT_EQ(TemporaryDirectory::Read(path), "old");
  EXPECT_THAT(Names(directory), testing::ElementsAre("file"));
}

TEST(FileReplacement, MakesAFileThatIsNotThere) {
  const TemporaryDirectory directory;
  {
    FileReplacement file(directory.Path() / "file", FileReplacement::Readers::Owner);
    file.Write("new");
    file.Commit(FileReplacement::Existing::Keep);
  }
  EXPECT_EQ(TemporaryDirectory::Read(directory.Path() / "file"), "new");
  EXPECT_THAT(Names(directory), testing::ElementsAre("file"));
}

TEST(FileReplacement, NamesTheFileThatCannotBeWritten) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Path() / "nowhere" / "file";
  try {
    const FileReplacement file(path);
    ADD_FAILURE() << "written into a folder that is not there";
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr(path.string()));
  }
}

}  // namespace
}  // namespace sorvex
