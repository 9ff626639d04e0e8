// When a delivered file reaches the disk. The system's call is replaced here.
#include <DeliveredFile.h>

#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

namespace {

/// Called before each call of the system's.
std::function<void()> onSync;

}  // namespace

// Takes the place of the C library's for this program.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
  if (onSync) onSync();
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace sorvex::test {
namespace {

TEST(DeliveredFileOnDisk, IsThereBeforeItHasItsName) {
  const TemporaryDirectory directory;
  const std::filesystem::path path = directory.Write("file", "old");
  agent::DeliveredFile file(path);
  file.Stream() << "new";
  file.Finish();
  std::vector<std::string> found;
  onSync = [&] { found.push_back(TemporaryDirectory::Read(path)); };
  file.Keep();
  onSync = nullptr;
  EXPECT_THAT(found, testing::ElementsAre("old"));
  EXPECT_EQ(TemporaryDirectory::Read(path), "new");
}

}  // namespace
}  // namespace sorvex::test
