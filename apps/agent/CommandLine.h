// The command line of sorvex-agent.
#pragma once

#include <Destination.h>

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
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

struct FetchConfigurationCommand {
  std::string file;
};

struct FetchPatchCommand {
  std::string file;
  std::vector<std::string> names;
};

struct ServerKeyCommand {
  std::string file;
};

struct KeyCreateCommand {
  std::string container;  ///< empty: the default one
  bool force = false;     ///< also when there is a key
};

struct KeyShowCommand {
  std::string container;
};

struct TokenProtectCommand {
  std::string token;  ///< "-": standard input has it
};

struct CheckConfigurationCommand {
  std::string file;
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

/// Runs the agent.
struct RunLoopOptions {
  std::chrono::seconds interval{300};
  std::string osVersion;
  std::string agentVersion;
  std::filesystem::path stateDirectory;
  bool isService = false;  ///< started by the system's service manager
};

/// The state of the running agent.
struct StatusCommand {
  std::filesystem::path stateDirectory;
};

struct ServiceInstallCommand {
  std::vector<std::string> arguments;    ///< with which the service is started
  std::filesystem::path stateDirectory;  ///< where its log may go
};

struct ServiceRemoveCommand {};

using Command = std::variant<InfoCommand, ParameterCommand, FingerprintCommand, HeartbeatCommand, TestConnectionCommand,
                             RegisterCommand, UpdateStatusCommand, ForwardCommand, FetchConfigurationCommand,
                             FetchPatchCommand, ServerKeyCommand, RunLoopOptions>;

/// These need no module.
using LocalCommand = std::variant<KeyCreateCommand, KeyShowCommand, TokenProtectCommand, CheckConfigurationCommand,
                                  StatusCommand, ServiceInstallCommand, ServiceRemoveCommand>;

/// Texts are UTF-8; an empty path means the default.
struct Options {
  std::string configDirectory;
  std::string patchDirectory;
  std::string stateDirectory;
  std::string module;
  std::string logFile;
  WindowsAgentCommon::LogLevel logLevel = WindowsAgentCommon::LogLevel::Warn;
  WindowsAgentCommon::ParameterBlock parameters;
  Command command;
  std::uint32_t repeat = 1;                  ///< how often a server command runs
  std::optional<LocalCommand> localCommand;  ///< instead of `command`
};

/// Reads the arguments after the program's name. Returns nothing when there is nothing to run: either help was printed
/// and `status` is 0, or the usage error was printed to standard error and `status` is 2.
std::optional<Options> ParseCommandLine(std::vector<std::string> arguments, int& status);

}  // namespace sorvex::agent
