#include <Agent.h>
#include <BoundedRun.h>
#include <CheckConfiguration.h>
#include <CommandLine.h>
#include <FetchCommands.h>
#include <Forward.h>
#include <KeyCommands.h>
#include <Output.h>
#include <Run.h>
#include <ServerCommands.h>
#include <ServiceCommands.h>
#include <StatusReport.h>
#include <platform/Platform.h>
#include <platform/Service.h>

#include <SorvexHost/Directories.h>
#include <host/LoggerFactory.h>
#include <host/Text.h>

#include <ace/Init_ACE.h>

#include <exception>

namespace sorvex::agent {
namespace {

// Exit statuses; 2 is wrong usage.
constexpr int failed = 1;
constexpr int notInitialized = 3;

struct AceLibrary {
  AceLibrary() { ACE::init(); }
  ~AceLibrary() { ACE::fini(); }
  AceLibrary(const AceLibrary&) = delete;
  AceLibrary& operator=(const AceLibrary&) = delete;
};

bool IsService(const Options& options) {
  const auto* const loop = std::get_if<RunLoopOptions>(&options.command);
  return loop != nullptr && loop->isService;
}

/// Nobody sees a service's standard error: its log says why it ends.
void ReportFailure(const Options& options, const std::string& reason) {
  if (IsService(options))
    WindowsAgentCommon::LoggerFactory::GetLogger("Code.Agent").Error("The agent ends: %s", reason);
  PrintError(reason);
}

/// Runs a server command as often as requested, with one connection. Returns 0 when every run succeeded.
template <class ServerCommand>
int RunRepeatedly(const ServerCommand& command, std::uint32_t times, WindowsAgentCommon::IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  int status = 0;
  for (std::uint32_t i = 0; i < times && !IsInterrupted(); ++i) {
    if (const int result = RunCommand(command, connection); result != 0) status = result;
  }
  return status;
}

int Run(const Options& options, LastWords& lastWords) {
  OpenLog(options);
  Agent agent(options);
  try {
    agent.Load();
  } catch (const std::exception& error) {
    ReportFailure(options, error.what());
    return notInitialized;
  }
  const int result = agent.Initialize();
  const bool ready = result == WindowsAgentCommon::SERVICE_INITIALIZE_READY;
  const bool info = std::holds_alternative<InfoCommand>(options.command);
  if (!ready && !info) {
    ReportFailure(options, "the module's Initialize returned " + std::to_string(result) + "; its log says why");
    return notInitialized;
  }
  const int status = std::visit(
      [&](const auto& command) {
        if constexpr (requires(const ServerConnection& connection) { RunCommand(command, connection); }) {
          return RunRepeatedly(command, options.repeat, agent.GetConnectionFactory());
        } else if constexpr (requires { RunCommand(command, agent.GetConnectionFactory(), lastWords); }) {
          return RunCommand(command, agent.GetConnectionFactory(), lastWords);
        } else {
          return RunCommand(command, agent.GetConnectionFactory());
        }
      },
      options.command);
  if (info) PrintNumber("initialize", result);
  return ready ? status : notInitialized;
}

/// Runs a command that needs no module.
int RunLocal(const Options& options) {
  if (!options.configDirectory.empty()) {
    WindowsAgentCommon::SetConfigPath(WindowsAgentCommon::Utf8ToWide(options.configDirectory));
  }
  return std::visit([](const auto& command) { return RunCommand(command); }, *options.localCommand);
}

}  // namespace

int RunAgent(std::vector<std::string> arguments) {
  int status = failed;
  try {
    const std::optional<Options> options = ParseCommandLine(std::move(arguments), status);
    if (!options) return status;
    InstallInterruptHandler();
    const AceLibrary ace;
    // An exception would end a service without a report to the service manager.
    const auto run = [&options] {
      try {
        return RunBounded([&options](LastWords& lastWords) {
          return options->localCommand ? RunLocal(*options) : Run(*options, lastWords);
        });
      } catch (const std::exception& error) {
        ReportFailure(*options, error.what());
        return failed;
      }
    };
    status = IsService(*options) ? RunAsService(run) : run();
  } catch (const std::exception& error) {
    PrintError(error.what());
    status = failed;
  }
  if (FlushOutput()) return status;
  PrintError("standard output cannot be written");
  return failed;
}

}  // namespace sorvex::agent
