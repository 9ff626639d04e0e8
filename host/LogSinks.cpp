#include <SorvexHost/LogSinks.h>

#include <host/Text.h>

#include "SpdlogSink.h"
#include "platform/LogFile.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <system_error>

namespace WindowsAgentCommon {

std::shared_ptr<ILogSink> CreateStandardErrorSink(LogLevel level) {
  return std::make_shared<SpdlogSink>(std::make_unique<spdlog::sinks::stderr_sink_mt>(), level);
}

std::shared_ptr<ILogSink> CreateFileSink(const std::filesystem::path& file, LogLevel level) {
  // Made here and not by spdlog, which knows no modes and tries again for a while where there is nothing to be had.
  CreateLogFile(file);
  try {
    return std::make_shared<SpdlogSink>(std::make_unique<spdlog::sinks::basic_file_sink_mt>(file.native()), level);
  } catch (const spdlog::spdlog_ex& error) {
    throw std::system_error(std::make_error_code(std::errc::io_error),
                            WideToUtf8(PathToWide(file)) + ": " + error.what());
  }
}

bool ParseLogLevel(const std::string& text, LogLevel& level) {
  std::string lower = text;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
  });
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
