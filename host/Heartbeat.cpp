#include <host/Heartbeat.h>

#include <host/EnvironmentBlockHelper.h>
#include <host/IStatisticsServer.h>
#include <host/LoggerFactory.h>
#include <host/ServiceLookup.h>

namespace WindowsAgentCommon {

Heartbeat::Heartbeat() = default;

Heartbeat::~Heartbeat() = default;

void Heartbeat::Initialize(const ParameterBlock& parameters) {
  constexpr std::uint32_t defaultLevel = 2;
  EnvironmentBlockHelper(parameters).GetUInt32Value("LogMonitor.Level", m_level, defaultLevel);
  m_bInitialized = true;
}

bool Heartbeat::HandleEvent(int level, const std::string& source, const std::string& text) {
  if (!m_bInitialized || level < static_cast<std::int64_t>(m_level)) return false;
  const std::string name = "Heartbeat." + source;
  LoggerFactory::GetLogger(name).Info("%s", text);
  if (auto* statistics = GetService<IStatisticsServer>()) statistics->Add(name, 1);
  return true;
}

void Heartbeat::Shutdown() { m_bInitialized = false; }

}  // namespace WindowsAgentCommon
