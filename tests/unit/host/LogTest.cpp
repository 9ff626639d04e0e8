#include <host/Log.h>
#include <host/LoggerFactory.h>

#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::LogRecord;
using sorvex::test::RecordingLogger;
using sorvex::test::RecordingSink;
using testing::ElementsAre;

/// Keeps nothing of any level.
class DeafSink : public ILogSink {
 public:
  bool IsEnabled(LogLevel) const override { return false; }
  void Write(LogLevel, const std::string&, const std::string&) override { m_bWritten = true; }

  bool m_bWritten = false;
};

class FailingSink : public ILogSink {
 public:
  bool IsEnabled(LogLevel) const override { return true; }
  void Write(LogLevel, const std::string&, const std::string&) override { throw std::runtime_error("disk full"); }
};

TEST(Log, EachOperationWritesItsLevel) {
  const auto sink = std::make_shared<RecordingSink>();
  const Log log("Name", sink);
  log.Debug("a %d", 1);
  log.Info("b %s", "2");
  log.Warn("c %ls", L"3");
  log.Error("d");
  EXPECT_THAT(sink->Records(),
              ElementsAre(LogRecord{LogLevel::Debug, "Name", "a 1"}, LogRecord{LogLevel::Info, "Name", "b 2"},
                          LogRecord{LogLevel::Warn, "Name", "c 3"}, LogRecord{LogLevel::Error, "Name", "d"}));
}

TEST(Log, EscapesValues) {
  const auto sink = std::make_shared<RecordingSink>();
  Log("Name", sink).Info("%s", "a\nb");
  EXPECT_THAT(sink->Lines(), ElementsAre("Info a\\nb"));
}

TEST(Log, TakesNoFormatForAText) {
  const auto sink = std::make_shared<RecordingSink>();
  const char* const format = nullptr;
  Log("Name", sink).Info(format, 1);
  EXPECT_THAT(sink->Lines(), ElementsAre("Info (null)"));
}

TEST(Log, DefaultConstructedDiscards) {
  const Log log;
  log.Error("nobody hears %d", 1);
  EXPECT_FALSE(log.IsEnabled(LogLevel::Error));
  EXPECT_EQ(log.GetName(), "");
}

TEST(Log, WithoutSinkDiscards) {
  const Log log("Name", nullptr);
  log.Error("nobody hears");
  EXPECT_FALSE(log.IsEnabled(LogLevel::Error));
  EXPECT_EQ(log.GetName(), "Name");
}

TEST(Log, AsksTheSinkBeforeItWrites) {
  const auto sink = std::make_shared<DeafSink>();
  Log("Name", sink).Error("%s", "text");
  EXPECT_FALSE(sink->m_bWritten);
}

/// Keeps Info and above.
class InfoSink : public RecordingSink {
 public:
  bool IsEnabled(LogLevel level) const override { return level >= LogLevel::Info; }
};

/// A value that counts how often its text is requested.
struct CountedText {
  operator std::string_view() const {
    ++*m_pCount;
    return "text";
  }
  int* m_pCount;
};

TEST(Log, LooksAtNoValueOfARecordThatIsNotKept) {
  const auto sink = std::make_shared<InfoSink>();
  const Log log("Name", sink);
  int count = 0;
  log.Debug("%s", CountedText{&count});
  EXPECT_EQ(count, 0);
  log.Info("%s", CountedText{&count});
  EXPECT_EQ(count, 1);
  EXPECT_THAT(sink->Lines(), ElementsAre("Info text"));
}

constexpr std::size_t MOST = 65536;

/// The message of a record with this text.
std::string Message(const char* format, const std::string& text) {
  const auto sink = std::make_shared<RecordingSink>();
  Log("Name", sink).Info(format, text);
  return sink->Records().at(0).text;
}

TEST(Log, KeepsAMessageOf64KiB) {
  const std::string text(MOST, 'a');
  EXPECT_TRUE(Message("%s", text) == text);
}

TEST(Log, ShortensALongerMessageAndSaysByHowMuch) {
  EXPECT_TRUE(Message("%s", std::string(MOST + 1, 'a')) == std::string(MOST, 'a') + " [1 more bytes]");
  EXPECT_TRUE(Message("got %s.", std::string(1048576, 'a')) ==
              "got " + std::string(MOST - 4, 'a') + " [" + std::to_string(1048576 + 5 - MOST) + " more bytes]");
}

TEST(Log, ShortensWhatEscapingMadeLong) {
  std::string expected;
  while (expected.size() < MOST) expected += "\\x01";
  EXPECT_TRUE(Message("%s", std::string(1048576, '\x01')) ==
              expected + " [" + std::to_string(4 * 1048576 - MOST) + " more bytes]");
}

TEST(Log, SplitsNoCharacterAndNoEscapeWhereItShortens) {
  const std::string start(MOST - 1, 'a');
  EXPECT_TRUE(Message("%s", start + "\xC3\xA4z") == start + " [3 more bytes]");
  EXPECT_TRUE(Message((start + "\xC3\xA4%s").c_str(), "z") == start + " [3 more bytes]");
  EXPECT_TRUE(Message("%s", start + "\nz") == start + " [3 more bytes]");
  EXPECT_TRUE(Message("%s", start + "\\z") == start + " [3 more bytes]");
  EXPECT_TRUE(Message((start + "%-4s").c_str(), "\n") == start + " [4 more bytes]");
  EXPECT_TRUE(Message((start.substr(2) + "%4s").c_str(), "\n") == start.substr(2) + "   [2 more bytes]");
}

TEST(Log, NeverThrows) {
  const Log log("Name", std::make_shared<FailingSink>());
  EXPECT_NO_THROW(log.Error("lost"));
}

TEST(Log, CopiesShareTheLogger) {
  const auto sink = std::make_shared<RecordingSink>();
  Log first("Name", sink);
  Log second = first;
  second.Info("copied");
  Log third;
  third = first;
  third.Info("assigned");
  Log fourth = std::move(first);
  fourth.Info("moved");
  third = std::move(fourth);
  third.Info("moved again");
  EXPECT_THAT(sink->Lines("Name"), ElementsAre("Info copied", "Info assigned", "Info moved", "Info moved again"));
}

TEST(Log, MovedFromDiscards) {
  const auto sink = std::make_shared<RecordingSink>();
  Log first("Name", sink);
  const Log second = std::move(first);
  first.Info("nobody hears");
  EXPECT_FALSE(first.IsEnabled(LogLevel::Error));
  EXPECT_TRUE(sink->Records().empty());
}

TEST(Log, ManyThreadsMayLogThroughOneHandle) {
  const auto sink = std::make_shared<RecordingSink>();
  const Log log("Name", sink);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([log, i] {
      for (int j = 0; j < 200; ++j) log.Info("thread %d line %d", i, j);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(sink->Records().size(), 800U);
  EXPECT_EQ(sink->Count("Info thread 3 line 199"), 1U);
}

TEST(LoggerFactory, LoggerWritesToTheSinkOfItsTimeOfFetching) {
  const RecordingLogger first;
  const Log log = LoggerFactory::GetLogger("Name");
  const RecordingLogger second;
  log.Info("text");
  EXPECT_THAT(first->Lines(), ElementsAre("Info text"));
  EXPECT_TRUE(second->Records().empty());
}

TEST(LoggerFactory, LoggerHasItsName) { EXPECT_EQ(LoggerFactory::GetLogger("Code.Name").GetName(), "Code.Name"); }

TEST(LoggerFactory, LoggerKeepsItsSinkAlive) {
  auto sink = std::make_shared<RecordingSink>();
  const std::weak_ptr<RecordingSink> watched = sink;
  const std::shared_ptr<ILogSink> previous = LoggerFactory::SetSink(std::move(sink));
  {
    const Log log = LoggerFactory::GetLogger("Name");
    LoggerFactory::SetSink(previous);
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

TEST(LoggerFactory, SetSinkReturnsThePreviousOne) {
  const auto first = std::make_shared<RecordingSink>();
  const auto second = std::make_shared<RecordingSink>();
  const std::shared_ptr<ILogSink> original = LoggerFactory::SetSink(first);
  EXPECT_EQ(LoggerFactory::SetSink(second), first);
  EXPECT_EQ(LoggerFactory::SetSink(original), second);
}

TEST(LoggerFactory, NullSinkDiscards) {
  const std::shared_ptr<ILogSink> original = LoggerFactory::SetSink(nullptr);
  EXPECT_FALSE(LoggerFactory::GetLogger("Name").IsEnabled(LogLevel::Error));
  LoggerFactory::SetSink(original);
}

TEST(LoggerFactory, InitialSinkKeepsInfoAndAbove) {
  const Log log = LoggerFactory::GetLogger("Name");
  EXPECT_FALSE(log.IsEnabled(LogLevel::Debug));
  EXPECT_TRUE(log.IsEnabled(LogLevel::Info));
  EXPECT_TRUE(log.IsEnabled(LogLevel::Error));
}

TEST(LoggerFactory, SinkMayBeReplacedWhileLoggersAreFetched) {
  const RecordingLogger guard;
  std::thread fetcher([] {
    for (int i = 0; i < 500; ++i) LoggerFactory::GetLogger("Name").Info("%d", i);
  });
  const auto other = std::make_shared<RecordingSink>();
  std::size_t seen = 0;
  for (int i = 0; i < 500; ++i) seen += LoggerFactory::SetSink(other) != nullptr ? 1U : 0U;
  fetcher.join();
  EXPECT_EQ(seen, 500U);
  EXPECT_EQ(guard->Records().size() + other->Records().size(), 500U);
}

}  // namespace
}  // namespace WindowsAgentCommon
