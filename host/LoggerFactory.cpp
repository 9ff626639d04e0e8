#include <host/LoggerFactory.h>

#include <SorvexHost/LogSinks.h>

#include <mutex>
#include <utility>

namespace WindowsAgentCommon {
namespace {

struct CurrentSink {
  std::mutex m_mutex;
  std::shared_ptr<ILogSink> m_pSink = CreateStandardErrorSink(LogLevel::Info);
};

/// Never destroyed: other static objects may log while the process ends.
CurrentSink& GetCurrentSink() {
  static CurrentSink& current = *new CurrentSink;
  return current;
}

}  // namespace

Log LoggerFactory::GetLogger(const std::string& name) {
  CurrentSink& current = GetCurrentSink();
  const std::lock_guard lock(current.m_mutex);
  return Log(name, current.m_pSink);
}

std::shared_ptr<ILogSink> LoggerFactory::SetSink(std::shared_ptr<ILogSink> sink) {
  CurrentSink& current = GetCurrentSink();
  const std::lock_guard lock(current.m_mutex);
  return std::exchange(current.m_pSink, std::move(sink));
}

}  // namespace WindowsAgentCommon
