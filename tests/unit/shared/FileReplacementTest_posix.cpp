#include "support/TemporaryDirectory.h"

#include <shared/platform/FileReplacement.h>

#include <gtest/gtest.h>

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

TEST(FileReplacement, HasNoNameBeforeItIsWhole) {
  const test::TemporaryDirectory directory;
  FileReplacement file(directory.Path() / "file");
  file.Write("half");
  // A process that dies now leaves nothing.
  EXPECT_TRUE(std::filesystem::is_empty(directory.Path()));
}

}  // namespace
}  // namespace sorvex
