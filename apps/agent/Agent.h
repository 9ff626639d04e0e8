// The host's side of the module: sets up the framework, loads and unloads the module.
#pragma once

#include <CommandLine.h>

#include <SorvexHost/ComponentFactory.h>
#include <host/IConnectionFactory.h>

#include <string>

namespace sorvex::agent {

/// Sets where the log goes. Call it before an agent exists, because loggers keep the sink that they were fetched with.
/// Throws `std::system_error` for a log file that cannot be opened.
void OpenLog(const Options& options);

/// One per process. One thread. Release what the module made before this object is destroyed.
class Agent {
 public:
  /// Sets the directories and installs the component factory.
  explicit Agent(const Options& options);
  /// Shuts the module down and unloads it.
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  /// Loads the module and the services that it expects. Throws `std::runtime_error` naming the file when it cannot be
  /// loaded or is something else.
  void Load();

  /// Initialises the loaded module and returns its result, a `ServiceInitializeResult`.
  int Initialize();

  /// The loaded module.
  WindowsAgentCommon::IConnectionFactory& GetConnectionFactory() const { return *m_pConnectionFactory; }

 private:
  WindowsAgentCommon::ServiceConfig m_moduleConfig;
  WindowsAgentCommon::ComponentFactory m_componentFactory;
  WindowsAgentCommon::IConnectionFactory* m_pConnectionFactory = nullptr;  ///< owned by the service repository
};

}  // namespace sorvex::agent
