// The running agent.
#pragma once

#include <BoundedRun.h>
#include <CommandLine.h>

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

/// Follows the inputs of AgentConfig.xml, forwards their lines to its destinations and stays in touch with the
/// configuration server, until the program is asked to end. Returns 0. Throws `std::exception` when it cannot start.
int RunCommand(const RunLoopOptions& options, WindowsAgentCommon::IConnectionFactory& factory, LastWords& lastWords);

}  // namespace sorvex::agent
