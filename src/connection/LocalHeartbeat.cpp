#include "connection/LocalHeartbeat.h"

#include <host/Heartbeat.h>
#include <host/IComponentFactory.h>

#include <iterator>
#include <memory>
#include <mutex>

namespace VaroCommunicationAPI {

namespace {

/// Does not write a block that is already right: the host may be reading it.
void SetLogMonitorLevel(WindowsAgentCommon::ParameterBlock& parameters) {
  constexpr const char* key = "LogMonitor.Level";
  const auto [first, last] = parameters.equal_range(key);
  if (std::distance(first, last) == 1 && first->second == "2") return;
  parameters.erase(first, last);
  parameters.emplace(key, "2");
}

}  // namespace

WindowsAgentCommon::ServiceConfig* FindAgentCoreConfig() {
  WindowsAgentCommon::IComponentFactory* const componentFactory = WindowsAgentCommon::GetComponentFactory();
  return componentFactory ? componentFactory->GetServiceConfig("AgentCore") : nullptr;
}

void PostLocalHeartbeat(WindowsAgentCommon::ServiceConfig& agentCore) {
  constexpr int heartbeatLevel = 3;
  // All connections of the process write the one object of the host.
  static std::mutex parametersMutex;
  const auto heartbeat = std::make_shared<WindowsAgentCommon::Heartbeat>();
  {
    const std::lock_guard lock(parametersMutex);
    SetLogMonitorLevel(agentCore.m_parameters);
    heartbeat->Initialize(agentCore.m_parameters);
  }
  // Stand-alone and direct TLS connections use this one source name, on purpose.
  heartbeat->HandleEvent(heartbeatLevel, "Code.SSLConfigServerConnection", "ApplicationHeartbeat");
  heartbeat->Shutdown();
}

}  // namespace VaroCommunicationAPI
