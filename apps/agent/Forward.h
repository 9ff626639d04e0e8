// The command that sends lines as events.
#pragma once

#include <BoundedRun.h>
#include <CommandLine.h>

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

/// Sends each line of the inputs to every destination, shuts the sockets down and prints the counters, also as last
/// words. Returns 0 when the inputs were read to their ends and every event has been sent to each destination, else 1.
int RunCommand(const ForwardCommand& command, WindowsAgentCommon::IConnectionFactory& factory, LastWords& lastWords);

}  // namespace sorvex::agent
