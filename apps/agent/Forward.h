// The command that sends lines as events.
#pragma once

#include <CommandLine.h>

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

/// Sends each line of the inputs to every destination, shuts the sockets down and prints the counters. Returns 0 when
/// every event that was read has been sent to each, else 1.
int RunCommand(const ForwardCommand& command, WindowsAgentCommon::IConnectionFactory& factory);

}  // namespace sorvex::agent
