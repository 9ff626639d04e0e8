#include <host/Log.h>

#include "TextFormatter.h"

#include <utility>

namespace WindowsAgentCommon {
namespace {

/// Limits what a peer can make us log.
constexpr std::size_t MAX_MESSAGE_BYTES = 64 * 1024;

}  // namespace

struct Log::Target {
  std::string m_strName;
  std::shared_ptr<ILogSink> m_pSink;
};

// Defined here so that the class has one v-table and one type_info in the whole process.
ILogSink::~ILogSink() = default;

std::string FormatText(const char* format, const LogArgument* arguments, std::size_t count, bool escape) {
  return TextFormatter(format ? format : "(null)", arguments, count, escape).Run();
}

Log::Log() = default;

Log::Log(std::string name, std::shared_ptr<ILogSink> sink)
    : m_pTarget(std::make_shared<const Target>(Target{std::move(name), std::move(sink)})) {}

Log::Log(const Log&) = default;

Log::Log(Log&&) noexcept = default;

Log& Log::operator=(const Log&) = default;

Log& Log::operator=(Log&&) noexcept = default;

Log::~Log() = default;

bool Log::IsEnabled(LogLevel level) const {
  return m_pTarget && m_pTarget->m_pSink && m_pTarget->m_pSink->IsEnabled(level);
}

const std::string& Log::GetName() const {
  static const std::string NONE;
  return m_pTarget ? m_pTarget->m_strName : NONE;
}

void Log::WriteRecord(LogLevel level, const char* format, const LogArgument* arguments, std::size_t count) const {
  try {
    TextFormatter formatter(format ? format : "(null)", arguments, count, true, MAX_MESSAGE_BYTES);
    m_pTarget->m_pSink->Write(level, m_pTarget->m_strName, formatter.Run());
  } catch (...) {
    // A record that cannot be kept (no memory, full disk) must not end the work that it reports.
  }
}

}  // namespace WindowsAgentCommon
