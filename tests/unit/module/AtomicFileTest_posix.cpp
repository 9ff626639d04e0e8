#include "platform/AtomicFile.h"

#include "support/TemporaryDirectory.h"

#include <host/Text.h>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::Platform::WriteFileAtomically;
using WindowsAgentCommon::PathToWide;

TEST(AtomicFileMode, LetsOnlyTheOwnerWriteWhateverTheProcessesMaskIs) {
  for (const mode_t mask : {0000, 0077}) {
    const TemporaryDirectory directory;
    const std::filesystem::path file = directory.Path() / "file";
    const mode_t previous = ::umask(mask);
    const int error = WriteFileAtomically(PathToWide(file), "x");
    ::umask(previous);
    ASSERT_EQ(error, 0);
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
  }
}

TEST(AtomicFileWriting, ThatTheSystemEndsHalfWayLeavesNothing) {
  const TemporaryDirectory directory;
  directory.Write("file", "older");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{4096, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const int error = WriteFileAtomically(PathToWide(directory.Path() / "file"), std::string(5000, 'x'));
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(error, EFBIG);
  EXPECT_EQ(TemporaryDirectory::Read(directory.Path() / "file"), "older");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.Path()), {}), 1);
}

}  // namespace
}  // namespace sorvex::test
