// A log sink over one sink of spdlog.
#pragma once

#include <host/Log.h>

#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>

namespace WindowsAgentCommon {

/// Writes one line per record: time (UTC, microseconds), level, logger name, text. The name is escaped; line feeds in a
/// format itself stay. Thread-safe when `sink` is.
class SpdlogSink : public ILogSink {
 public:
  SpdlogSink(std::unique_ptr<spdlog::sinks::sink> sink, LogLevel level);
  ~SpdlogSink() override;

  bool IsEnabled(LogLevel level) const override;
  void Write(LogLevel level, const std::string& loggerName, const std::string& message) override;

 private:
  std::unique_ptr<spdlog::sinks::sink> m_pSink;
  LogLevel m_level;
};

}  // namespace WindowsAgentCommon
