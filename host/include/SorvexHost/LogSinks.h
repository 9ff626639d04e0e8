// The reference log sinks. A line is "2026-11-20T21:10:53.123456Z Warn <logger name> <text>", in UTC. A logger's name is
// escaped as logged values are; line feeds that a record's own format holds stay, and its text goes on after them.
#pragma once

#include <host/Log.h>

#include <filesystem>
#include <memory>

namespace WindowsAgentCommon {

/// Writes records of `level` and above to standard error. Thread-safe.
SORVEXCOMMON_EXPORT std::shared_ptr<ILogSink> CreateStandardErrorSink(LogLevel level);

/// Appends records of `level` and above to the file, made with mode 0640 where the system has modes, each record
/// flushed. Throws `std::system_error` naming the file when it cannot be opened. Thread-safe.
SORVEXCOMMON_EXPORT std::shared_ptr<ILogSink> CreateFileSink(const std::filesystem::path& file, LogLevel level);

/// Stores the level that `text` names ("debug", "info", "warn", "error", any case); returns whether it names one.
SORVEXCOMMON_EXPORT bool ParseLogLevel(const std::string& text, LogLevel& level);

}  // namespace WindowsAgentCommon
