// The heartbeat that reaches no server: the agent's own monitor is told that the agent lives.
#pragma once

#include <host/ServiceConfig.h>

namespace VaroCommunicationAPI {

/// Returns the configuration object of "AgentCore", or null when the host has none.
WindowsAgentCommon::ServiceConfig* FindAgentCoreConfig();

/// Sets "LogMonitor.Level" to "2" in `agentCore`, the host's own object and not a copy, deliberately, and hands one
/// event to a monitor made for it. Any thread; the block is written by one at a time, and only when it has to be.
void PostLocalHeartbeat(WindowsAgentCommon::ServiceConfig& agentCore);

}  // namespace VaroCommunicationAPI
