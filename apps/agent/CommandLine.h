// The command line of sorvex-agent.
#pragma once

#include <Destination.h>

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace sorvex::agent {

struct InfoCommand {};

struct ParameterCommand {
  std::vector<std::string> names;
};

struct FingerprintCommand {};
struct HeartbeatCommand {};
struct TestConnectionCommand {};

struct RegisterCommand {
  std::string osVersion;
  std::string agentVersion;
};

struct UpdateStatusCommand {
  std::int32_t status = 0;
  std::int64_t seconds = 0;
};

struct ForwardCommand {
  std::vector<Destination> destinations;  ///< at least one
  std::string certificate;                ///< of the TLS destinations, in Base64
  VaroCommunicationAPI::SSLProtocolList tlsVersions;
  bool queued = false;
  std::string builder = "SyslogPayloadBuilder";
  WindowsAgentCommon::ParameterBlock parameters;  ///< further parameters of the socket
  std::optional<double> giveUpAfter;              ///< seconds; without, a failing send is retried indefinitely
  std::vector<std::string> files;                 ///< at least one; "-" is standard input
};

using Command = std::variant<InfoCommand, ParameterCommand, FingerprintCommand, HeartbeatCommand, TestConnectionCommand,
                             RegisterCommand, UpdateStatusCommand, ForwardCommand>;

/// Texts are UTF-8; an empty path means the default.
struct Options {
  std::string configDirectory;
  std::string patchDirectory;
  std::string module;
  std::string logFile;
  WindowsAgentCommon::LogLevel logLevel = WindowsAgentCommon::LogLevel::Warn;
  WindowsAgentCommon::ParameterBlock parameters;
  Command command;
};

/// Reads the arguments after the program's name. Returns nothing when there is nothing to run: help was printed and
/// `status` is 0, or the usage error was printed to standard error and `status` is 2.
std::optional<Options> ParseCommandLine(std::vector<std::string> arguments, int& status);

}  // namespace sorvex::agent
