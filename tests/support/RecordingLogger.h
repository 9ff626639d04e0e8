// A log sink that keeps its records, for tests of messages, levels and order.
#pragma once

#include <host/Log.h>
#include <host/LoggerFactory.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {

struct LogRecord {
  WindowsAgentCommon::LogLevel level;
  std::string logger;
  std::string text;

  bool operator==(const LogRecord&) const = default;
};

inline const char* LevelName(WindowsAgentCommon::LogLevel level) {
  using WindowsAgentCommon::LogLevel;
  switch (level) {
    case LogLevel::Debug: return "Debug";
    case LogLevel::Info: return "Info";
    case LogLevel::Warn: return "Warn";
    case LogLevel::Error: return "Error";
  }
  return "?";
}

inline std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << LevelName(record.level) << ' ' << record.logger << ' ' << record.text;
}

/// How `value` appears in a log line.
inline std::string Logged(std::string_view value) {
  const WindowsAgentCommon::LogArgument argument(value);
  return WindowsAgentCommon::FormatText("%s", &argument, 1, true);
}

/// Keeps every record, in the order of arrival. Thread-safe.
class RecordingSink : public WindowsAgentCommon::ILogSink {
 public:
  bool IsEnabled(WindowsAgentCommon::LogLevel) const override { return true; }
  void Write(WindowsAgentCommon::LogLevel level, const std::string& loggerName, const std::string& message) override {
    const std::lock_guard lock(m_mutex);
    m_records.push_back({level, loggerName, message});
  }

  std::vector<LogRecord> Records() const {
    const std::lock_guard lock(m_mutex);
    return m_records;
  }

  /// "Level text" of every record whose logger name begins with `loggerPrefix`.
  std::vector<std::string> Lines(const std::string& loggerPrefix = {}) const {
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
      if (record.logger.starts_with(loggerPrefix))
        lines.push_back(std::string(LevelName(record.level)) + ' ' + record.text);
    }
    return lines;
  }

  /// How many records are `line` ("Level text") exactly.
  std::size_t Count(const std::string& line) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
  }

  void Clear() {
    const std::lock_guard lock(m_mutex);
    m_records.clear();
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<LogRecord> m_records;
};

/// During its lifetime every logger fetched writes to a `RecordingSink`; the destructor restores the previous sink.
class RecordingLogger {
 public:
  RecordingLogger() : m_previous(WindowsAgentCommon::LoggerFactory::SetSink(m_sink)) {}
  ~RecordingLogger() { WindowsAgentCommon::LoggerFactory::SetSink(m_previous); }
  RecordingLogger(const RecordingLogger&) = delete;
  RecordingLogger& operator=(const RecordingLogger&) = delete;

  RecordingSink* operator->() const { return m_sink.get(); }
  RecordingSink& operator*() const { return *m_sink; }

 private:
  std::shared_ptr<RecordingSink> m_sink = std::make_shared<RecordingSink>();
  std::shared_ptr<WindowsAgentCommon::ILogSink> m_previous;
};

}  // namespace sorvex::test
