#include <StatusReport.h>

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace sorvex::agent {
namespace {

TEST(StatusFileTest, IsForItsOwnerAlone) {
  const test::TemporaryDirectory directory;
  StatusFile(directory.Path()).Write("one\n", WallTime{});
  EXPECT_EQ(std::filesystem::status(directory.Path() / "status").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

}  // namespace
}  // namespace sorvex::agent
