// The commands that query the module or the configuration server. Each prints its result and returns the program's exit
// status.
#pragma once

#include <CommandLine.h>
#include <ServerConnection.h>

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

/// Needs no successful `Initialize`; without it there is no mode.
int RunCommand(const InfoCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const ParameterCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const FingerprintCommand& command, const ServerConnection& connection);
int RunCommand(const HeartbeatCommand& command, const ServerConnection& connection);
int RunCommand(const TestConnectionCommand& command, const ServerConnection& connection);
int RunCommand(const RegisterCommand& command, const ServerConnection& connection);
int RunCommand(const UpdateStatusCommand& command, const ServerConnection& connection);

}  // namespace sorvex::agent
