#include "SpdlogSink.h"

#include "TextEscape.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/details/os.h>
#include <spdlog/pattern_formatter.h>

#include <string_view>
#include <utility>

namespace WindowsAgentCommon {
namespace {

spdlog::level::level_enum ToSpdlog(LogLevel level) {
  switch (level) {
    case LogLevel::Debug: return spdlog::level::debug;
    case LogLevel::Info: return spdlog::level::info;
    case LogLevel::Warn: return spdlog::level::warn;
    case LogLevel::Error: return spdlog::level::err;
  }
  return spdlog::level::err;
}

/// Prints the levels' names as the host spells them.
class LevelFlag : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& message, const std::tm&, spdlog::memory_buf_t& line) override {
    const std::string_view name = message.level == spdlog::level::debug  ? "Debug"
                                  : message.level == spdlog::level::info ? "Info"
                                  : message.level == spdlog::level::warn ? "Warn"
                                                                         : "Error";
    line.append(name.data(), name.data() + name.size());
  }

  std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<LevelFlag>(); }
};

}  // namespace

SpdlogSink::SpdlogSink(std::unique_ptr<spdlog::sinks::sink> sink, LogLevel level)
    : m_pSink(std::move(sink)), m_level(level) {
  auto formatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::utc, "\n");
  formatter->add_flag<LevelFlag>('*').set_pattern("%Y-%m-%dT%H:%M:%S.%fZ %* %n %v");
  m_pSink->set_formatter(std::move(formatter));
}

SpdlogSink::~SpdlogSink() = default;

bool SpdlogSink::IsEnabled(LogLevel level) const { return level >= m_level; }

void SpdlogSink::Write(LogLevel level, const std::string& loggerName, const std::string& message) {
  if (!IsEnabled(level)) return;
  BoundedText escaped;
  AppendEscaped(escaped, loggerName);
  const std::string name = escaped.Take();
  m_pSink->log(
      spdlog::details::log_msg(spdlog::details::os::now(), spdlog::source_loc{}, name, ToSpdlog(level), message));
  m_pSink->flush();
}

}  // namespace WindowsAgentCommon
