#include "connection/LocalHeartbeat.h"

#include <host/Heartbeat.h>
#include <host/IComponentFactory.h>

#include <memory>

namespace VaroCommunicationAPI {

WindowsAgentCommon::ServiceConfig* FindAgentCoreConfig() {
  WindowsAgentCommon::IComponentFactory* const componentFactory = WindowsAgentCommon::GetComponentFactory();
  return componentFactory ? componentFactory->GetServiceConfig("AgentCore") : nullptr;
}

void PostLocalHeartbeat(WindowsAgentCommon::ServiceConfig& agentCore) {
  constexpr int heartbeatLevel = 3;
  const auto heartbeat = std::make_shared<WindowsAgentCommon::Heartbeat>();
  agentCore.m_parameters.erase("LogMonitor.Level");
  agentCore.m_parameters.emplace("LogMonitor.Level", "2");
  heartbeat->Initialize(agentCore.m_parameters);
  // Stand-alone and direct TLS connections use this one source name, on purpose.
  heartbeat->HandleEvent(heartbeatLevel, "Code.SSLConfigServerConnection", "ApplicationHeartbeat");
  heartbeat->Shutdown();
}

}  // namespace VaroCommunicationAPI
