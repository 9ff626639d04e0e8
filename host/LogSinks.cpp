#include <SorvexHost/LogSinks.h>

#include "SpdlogSink.h"
#include "platform/LogFile.h"

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <boost/algorithm/string/case_conv.hpp>

#include <locale>
#include <mutex>
#include <string_view>
#include <utility>

namespace WindowsAgentCommon {
namespace {

/// How often the name of a log file is checked.
constexpr std::chrono::seconds FOLLOW_INTERVAL{1};

/// Appends to a file by its name: after someone else renames or deletes it, to a new one.
class FileSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  FileSink(const std::filesystem::path& file, MonotonicClock now)
      : m_file(file), m_now(std::move(now)), m_lastFollowed(m_now()) {}

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (const auto now = m_now(); now - m_lastFollowed >= FOLLOW_INTERVAL) {
      m_lastFollowed = now;
      m_file.Follow();
    }
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    m_file.Write({line.data(), line.size()});
  }
  // Every line goes to the system at once.
  void flush_() override {}

  LogFile m_file;
  MonotonicClock m_now;
  std::chrono::steady_clock::time_point m_lastFollowed;
};

}  // namespace

std::shared_ptr<ILogSink> CreateStandardErrorSink(LogLevel level) {
  return std::make_shared<SpdlogSink>(std::make_unique<spdlog::sinks::stderr_sink_mt>(), level);
}

std::shared_ptr<ILogSink> CreateFileSink(const std::filesystem::path& file, LogLevel level, MonotonicClock now) {
  return std::make_shared<SpdlogSink>(std::make_unique<FileSink>(file, std::move(now)), level);
}

bool ParseLogLevel(const std::string& text, LogLevel& level) {
  const std::string lower = boost::algorithm::to_lower_copy(text, std::locale::classic());
  if (lower == "debug") {
    level = LogLevel::Debug;
  } else if (lower == "info") {
    level = LogLevel::Info;
  } else if (lower == "warn") {
    level = LogLevel::Warn;
  } else if (lower == "error") {
    level = LogLevel::Error;
  } else {
    return false;
  }
  return true;
}

}  // namespace WindowsAgentCommon
