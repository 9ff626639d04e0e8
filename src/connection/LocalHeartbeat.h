// The heartbeat that reaches no server: it tells the agent's own monitor that the agent is alive.
#pragma once

#include <host/ServiceConfig.h>

namespace VaroCommunicationAPI {

/// Returns the configuration object of "AgentCore", or null when the host has none.
WindowsAgentCommon::ServiceConfig* FindAgentCoreConfig();

/// Sets "LogMonitor.Level" to "2" in `agentCore`, deliberately the host's own object and not a copy, and passes one
/// event to a temporary monitor. Any thread; one at a time writes the block, and only if necessary.
void PostLocalHeartbeat(WindowsAgentCommon::ServiceConfig& agentCore);

}  // namespace VaroCommunicationAPI
