#include "support/TemporaryDirectory.h"

#include <shared/platform/FileReplacement.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace sorvex {
namespace {

using std::filesystem::perms;

TEST(FileReplacement, IsForItsOwnerAloneWhenToldSo) {
  const test::TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  FileReplacement file(path, FileReplacement::Readers::Owner);
  file.Commit();
  EXPECT_EQ(std::filesystem::status(path).permissions(), perms::owner_read | perms::owner_write);
}

TEST(FileReplacement, IsForWhomTheProcessAllowsOtherwise) {
  const test::TemporaryDirectory directory;
  const mode_t usual = umask(022);
  FileReplacement file(directory.Path() / "file");
  umask(usual);
  file.Commit();
  EXPECT_EQ(std::filesystem::status(directory.Path() / "file").permissions(),
            perms::owner_read | perms::owner_write | perms::group_read | perms::others_read);
}

TEST(FileReplacement, IsMadeWhereAProcessOfTheSameNumberDied) {
  const test::TemporaryDirectory directory;
  directory.Write("file." + std::to_string(getpid()) + ".part", "half");
  FileReplacement file(directory.Path() / "file");
  file.Write("whole");
  file.Commit();
  EXPECT_EQ(test::TemporaryDirectory::Read(directory.Path() / "file"), "whole");
}

TEST(FileReplacement, HasNoNameBeforeItIsWhole) {
  const test::TemporaryDirectory directory;
  FileReplacement file(directory.Path() / "file");
  file.Write("half");
  // A process that dies now leaves nothing.
  EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

}  // namespace
}  // namespace sorvex
