// The commands that ask the module or the configuration server something. Each prints its result and returns the
// program's exit status.
#pragma once

#include <CommandLine.h>

#include <host/IConnectionFactory.h>

namespace sorvex::agent {

/// Needs no successful `Initialize`; without, there is no mode.
int RunCommand(const InfoCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const ParameterCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const FingerprintCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const HeartbeatCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const TestConnectionCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const RegisterCommand& command, WindowsAgentCommon::IConnectionFactory& factory);
int RunCommand(const UpdateStatusCommand& command, WindowsAgentCommon::IConnectionFactory& factory);

}  // namespace sorvex::agent
