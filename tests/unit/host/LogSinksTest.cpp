#include <SorvexHost/LogSinks.h>

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/regex.hpp>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::TemporaryDirectory;
using testing::HasSubstr;

const std::string TIME = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)";

bool Matches(const std::string& text, const std::string& expression) {
  return boost::regex_match(text, boost::regex(expression));
}

/// Removes the time from each line that has one.
std::string WithoutTimes(const std::string& text) {
  return boost::regex_replace(text, boost::regex("(^|\n)" + TIME + " "), "$1");
}

TEST(LogSinks, LineHasTimeLevelNameAndText) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Warn, "Code.TCPSocket_0x55....127.0.0.1.514", "some text");
  EXPECT_TRUE(Matches(TemporaryDirectory::Read(file),
                      TIME + R"( Warn Code\.TCPSocket_0x55\.\.\.\.127\.0\.0\.1\.514 some text\n)"))
      << TemporaryDirectory::Read(file);
}

TEST(LogSinks, TimeIsThePresentOneInUtc) {
  using namespace std::chrono;
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  const auto before = floor<microseconds>(system_clock::now());
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "text");
  const auto after = system_clock::now();
  const std::string line = TemporaryDirectory::Read(file);
  const auto number = [&line](std::size_t position, std::size_t length) {
    return std::stoi(line.substr(position, length));
  };
  const auto written = sys_days(year(number(0, 4)) / number(5, 2) / number(8, 2)) + hours(number(11, 2)) +
                       minutes(number(14, 2)) + seconds(number(17, 2)) + microseconds(number(20, 6));
  EXPECT_GE(written, before);
  EXPECT_LE(written, after);
}

TEST(LogSinks, EveryLevelHasItsName) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug);
  for (const LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Warn, LogLevel::Error}) {
    sink->Write(level, "Name", "text");
  }
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)),
            "Debug Name text\nInfo Name text\nWarn Name text\nError Name text\n");
}

TEST(LogSinks, RecordsBelowTheLevelAreNotKept) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Warn);
  EXPECT_FALSE(sink->IsEnabled(LogLevel::Info));
  EXPECT_TRUE(sink->IsEnabled(LogLevel::Warn));
  EXPECT_TRUE(sink->IsEnabled(LogLevel::Error));
  sink->Write(LogLevel::Info, "Name", "quiet");
  sink->Write(LogLevel::Warn, "Name", "loud");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Warn Name loud\n");
}

TEST(LogSinks, NamesAreEscaped) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Socket.evil\nhost\xFF", "text");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info Socket.evil\\nhost\\xFF text\n");
}

TEST(LogSinks, LineFeedsOfTheTextStay) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "first\nsecond");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info Name first\nsecond\n");
}

TEST(LogSinks, BracesAndPercentSignsAreNoFormat) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "{}", "{0} %s %v");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info {} {0} %s %v\n");
}

TEST(LogSinks, EachRecordIsFlushed) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug);
  sink->Write(LogLevel::Info, "Name", "first");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info Name first\n");
  sink->Write(LogLevel::Info, "Name", "second");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info Name first\nInfo Name second\n");
}

TEST(LogSinks, FileIsAppendedTo) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Write("agent.log", "old line\n");
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "new");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "old line\nInfo Name new\n");
}

TEST(LogSinks, FileIsClosedToOthers) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  const std::shared_ptr<ILogSink> sink = CreateFileSink(file, LogLevel::Debug);
  using std::filesystem::perms;
  const perms present = std::filesystem::status(file).permissions();
  const std::filesystem::path closed = directory.Write("closed", "");
  std::filesystem::permissions(closed, perms::owner_read | perms::owner_write);
  if (std::filesystem::status(closed).permissions() != (perms::owner_read | perms::owner_write)) {
    GTEST_SKIP() << "files have no modes here";
  }
  EXPECT_EQ(present & (perms::others_all | perms::group_write), perms::none);
  EXPECT_EQ(present & perms::owner_all, perms::owner_read | perms::owner_write);
}

/// A log file, and the clock by which its name is checked.
class FollowedLogFile : public testing::Test {
 protected:
  void Write(const std::string& text) { m_sink->Write(LogLevel::Info, "Name", text); }
  static std::string Lines(const std::filesystem::path& file) { return WithoutTimes(TemporaryDirectory::Read(file)); }

  const TemporaryDirectory m_directory;
  const std::filesystem::path m_file = m_directory.Path() / "agent.log";
  const std::filesystem::path m_rotated = m_directory.Path() / "agent.log.1";
  std::chrono::steady_clock::time_point m_now{std::chrono::hours(1)};
  const std::shared_ptr<ILogSink> m_sink = CreateFileSink(m_file, LogLevel::Debug, [this] { return m_now; });
};

TEST_F(FollowedLogFile, IsMadeAnewWithinASecondAfterItWasRenamed) {
  Write("one");
  std::filesystem::rename(m_file, m_rotated);
  m_now += std::chrono::milliseconds(999);
  Write("two");
  m_now += std::chrono::milliseconds(1);
  Write("three");
  EXPECT_EQ(Lines(m_rotated), "Info Name one\nInfo Name two\n");
  EXPECT_EQ(Lines(m_file), "Info Name three\n");
}

TEST_F(FollowedLogFile, IsMadeAnewAfterItWasDeleted) {
  Write("one");
  std::filesystem::remove(m_file);
  m_now += std::chrono::seconds(1);
  Write("two");
  EXPECT_EQ(Lines(m_file), "Info Name two\n");
}

TEST_F(FollowedLogFile, IsTheOneThatHasItsName) {
  Write("one");
  std::filesystem::rename(m_file, m_rotated);
  m_directory.Write("agent.log", "made by the rotation\n");
  m_now += std::chrono::seconds(1);
  Write("two");
  EXPECT_EQ(Lines(m_file), "made by the rotation\nInfo Name two\n");
}

TEST_F(FollowedLogFile, IsFollowedAgainAndAgain) {
  for (const std::string name : {"a", "b", "c"}) {
    Write(name);
    std::filesystem::rename(m_file, m_directory.Path() / name);
    m_now += std::chrono::seconds(1);
  }
  Write("d");
  EXPECT_EQ(Lines(m_directory.Path() / "c"), "Info Name c\n");
  EXPECT_EQ(Lines(m_file), "Info Name d\n");
}

TEST_F(FollowedLogFile, StaysTheOldOneWhileThereCanBeNoNewOne) {
  Write("one");
  std::filesystem::rename(m_file, m_rotated);
  std::filesystem::create_directory(m_file);
  m_now += std::chrono::seconds(1);
  Write("two");
  EXPECT_EQ(Lines(m_rotated), "Info Name one\nInfo Name two\n");
}

TEST_F(FollowedLogFile, MayBeTruncated) {
  Write("one");
  std::filesystem::resize_file(m_file, 0);
  Write("two");
  EXPECT_EQ(Lines(m_file), "Info Name two\n");
}

TEST(LogSinks, FileMayHaveANameOfAnyCharacters) {
  const TemporaryDirectory directory("\xC3\xA4 \xE6\x97\xA5");
  const std::filesystem::path file = directory.Path() / WideToPath(Utf8ToWide("\xC3\xB6 \xF0\x9F\x98\x80.log"));
  CreateFileSink(file, LogLevel::Debug)->Write(LogLevel::Info, "Name", "text");
  EXPECT_EQ(WithoutTimes(TemporaryDirectory::Read(file)), "Info Name text\n");
}

TEST(LogSinks, FileThatCannotBeOpenedIsNamed) {
  const TemporaryDirectory directory;
  try {
    CreateFileSink(directory.Path() / "missing" / "agent.log", LogLevel::Debug);
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("agent.log"));
    // By number: where each module has its own standard library, each has its own categories.
    EXPECT_EQ(error.code().default_error_condition().value(), static_cast<int>(std::errc::no_such_file_or_directory));
  }
}

TEST(LogSinks, DirectoryIsNoLogFile) {
  const TemporaryDirectory directory;
  EXPECT_THROW(CreateFileSink(directory.Path(), LogLevel::Debug), std::system_error);
}

TEST(LogSinks, StandardErrorTakesLinesOfItsLevel) {
  testing::internal::CaptureStderr();
  {
    const std::shared_ptr<ILogSink> sink = CreateStandardErrorSink(LogLevel::Warn);
    EXPECT_FALSE(sink->IsEnabled(LogLevel::Info));
    sink->Write(LogLevel::Info, "Name", "quiet");
    sink->Write(LogLevel::Error, "Name", "loud");
  }
  EXPECT_EQ(WithoutTimes(testing::internal::GetCapturedStderr()), "Error Name loud\n");
}

TEST(LogSinks, LinesOfManyThreadsStayWhole) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "agent.log";
  constexpr int threadCount = 4;
  constexpr int lineCount = 250;
  {
    const Log log("Name", CreateFileSink(file, LogLevel::Debug));
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
      threads.emplace_back([log, i] {
        for (int j = 0; j < lineCount; ++j) log.Info("thread %d %s", i, std::string(50, static_cast<char>('a' + i)));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  std::istringstream content(WithoutTimes(TemporaryDirectory::Read(file)));
  std::map<std::string, int> counts;
  for (std::string line; std::getline(content, line);) ++counts[line];
  std::map<std::string, int> expected;
  for (int i = 0; i < threadCount; ++i) {
    expected["Info Name thread " + std::to_string(i) + ' ' + std::string(50, static_cast<char>('a' + i))] = lineCount;
  }
  EXPECT_EQ(counts, expected);
}

TEST(LogSinks, LevelIsParsedInAnyCase) {
  LogLevel level = LogLevel::Error;
  EXPECT_TRUE(ParseLogLevel("debug", level));
  EXPECT_EQ(level, LogLevel::Debug);
  EXPECT_TRUE(ParseLogLevel("Info", level));
  EXPECT_EQ(level, LogLevel::Info);
  EXPECT_TRUE(ParseLogLevel("WARN", level));
  EXPECT_EQ(level, LogLevel::Warn);
  EXPECT_TRUE(ParseLogLevel("eRRoR", level));
  EXPECT_EQ(level, LogLevel::Error);
}

TEST(LogSinks, OtherTextIsNoLevel) {
  LogLevel level = LogLevel::Warn;
  for (const char* text : {"", "warning", " info", "2", "err"}) {
    EXPECT_FALSE(ParseLogLevel(text, level)) << text;
    EXPECT_EQ(level, LogLevel::Warn);
  }
}

}  // namespace
}  // namespace WindowsAgentCommon
