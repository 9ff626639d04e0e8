// Properties that only a POSIX system has: pipes among files, and names of any bytes.
#include <SorvexHost/LogSinks.h>
#include <host/Digest.h>
#include <host/Text.h>

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::TemporaryDirectory;

/// Not UTF-8: the name as an older system wrote it.
const std::string LATIN1 =
    "Gr\xF6\xDF"
    "e";

TEST(Files, DigestOfAPipeIsEmptyAndWaitsForNobody) {
  const TemporaryDirectory directory;
  const std::filesystem::path pipe = directory.Path() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(MD5Sum(PathToWide(pipe)), "");
}

TEST(Files, PathOfAnyBytesSurvivesTheWayThroughWideText) {
  const std::filesystem::path path = "/a\xC3\xA4/" + LATIN1 + "/\xC3";
  EXPECT_EQ(WideToPath(PathToWide(path)), path);
}

TEST(Files, DigestIsThatOfAFileWhoseNameIsNoUtf8) {
  const TemporaryDirectory directory;
  EXPECT_EQ(MD5Sum(PathToWide(directory.Write(LATIN1 + "/\xFF", "abc"))), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Files, LogMayHaveANameThatIsNoUtf8) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = WideToPath(PathToWide(directory.Path() / LATIN1));
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "text");
  EXPECT_THAT(TemporaryDirectory::Read(directory.Path() / LATIN1), testing::HasSubstr(" Info Name text\n"));
}

TEST(Files, NewLogAfterARotationIsClosedToOthersToo) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug, [&now] { return now; });
  std::filesystem::rename(file, directory.Path() / "agent.log.1");
  now += std::chrono::seconds(1);
  sink->Write(LogLevel::Info, "Name", "text");
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137U, 0U);
}

}  // namespace
}  // namespace WindowsAgentCommon
