// The reference log sinks. A line is "2026-11-20T21:10:53.123456Z Warn <logger name> <text>", in UTC. A logger's name
// is escaped like logged values; line feeds in a record's own format stay, and its text continues after them.
#pragma once

#include <host/Log.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace WindowsAgentCommon {

/// Writes records of `level` and above to standard error. Thread-safe.
SORVEXCOMMON_EXPORT std::shared_ptr<ILogSink> CreateStandardErrorSink(LogLevel level);

/// Returns a time that only grows.
using MonotonicClock = std::function<std::chrono::steady_clock::time_point()>;

/// Appends records of `level` and above to the file, flushing each. The file is created with mode 0640 where the system
/// has modes. Others may rename or delete it: within a second by `now`, records go to the file that has its name then.
/// Throws `std::system_error` naming the file when it cannot be opened. Thread-safe.
SORVEXCOMMON_EXPORT std::shared_ptr<ILogSink> CreateFileSink(const std::filesystem::path& file, LogLevel level,
                                                             MonotonicClock now = std::chrono::steady_clock::now);

/// Stores the level that `text` names ("debug", "info", "warn", "error", any case); returns whether it names one.
SORVEXCOMMON_EXPORT bool ParseLogLevel(const std::string& text, LogLevel& level);

}  // namespace WindowsAgentCommon
