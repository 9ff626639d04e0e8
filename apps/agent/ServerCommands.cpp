#include <ServerCommands.h>

#include <Output.h>

#include <host/EnvironmentBlockHelper.h>

#include <ace/Time_Value.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;

/// A connection to the configuration server, released at the end of the scope.
class ServerConnection {
 public:
  explicit ServerConnection(IConnectionFactory& factory) : m_factory(factory) {
    m_factory.CreateConfigServerConnection(m_pConnection);
    if (!m_pConnection) throw std::runtime_error("the module made no connection to the configuration server");
  }
  ~ServerConnection() { m_factory.ReleaseConfigServerConnection(m_pConnection); }
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  IConfigurationServerConnection* operator->() const { return m_pConnection.get(); }

 private:
  IConnectionFactory& m_factory;
  std::shared_ptr<IConfigurationServerConnection> m_pConnection;
};

void PrintLastError(const ServerConnection& connection) {
  PrintNumber("error-code", connection->GetLastErrorCode());
  PrintNumber("result-code", connection->GetLastResultCode());
  PrintValue("error-message", connection->GetLastErrorMessage());
}

int PrintResult(bool result, const ServerConnection& connection) {
  PrintBoolean("result", result);
  PrintLastError(connection);
  return result ? 0 : 1;
}

std::string GetMode(const IConnectionFactory& factory) {
  std::string server;
  if (!factory.GetParameter("ConfigurationServer", server) || server.empty()) return "stand-alone";

  ParameterBlock parameters;
  std::string text;
  const std::string name = "ForceHTTPSConfigServerConnection";
  if (factory.GetParameter(name, text)) parameters.emplace(name, text);
  bool https = false;
  EnvironmentBlockHelper(parameters).GetBooleanValue(name, https, false);
  return https ? "https" : "direct-tls";
}

}  // namespace

int RunCommand(const InfoCommand&, IConnectionFactory& factory) {
  PrintValue("version", factory.GetVersion());
  if (factory.IsInitialized()) {
    PrintValue("mode", GetMode(factory));
    PrintBoolean("stand-alone-mode", factory.IsStandAloneMode());
  }
  return 0;
}

int RunCommand(const ParameterCommand& command, IConnectionFactory& factory) {
  int status = 0;
  for (const std::string& name : command.names) {
    std::string value;
    if (factory.GetParameter(name, value)) {
      PrintValue(name, value);
    } else {
      PrintError("there is no parameter " + name);
      status = 1;
    }
  }
  return status;
}

int RunCommand(const FingerprintCommand&, IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  std::string fingerprint;
  bool updateBlocked = false;
  if (connection->Connect()) fingerprint = connection->GetConfigurationFingerprint(updateBlocked);
  PrintValue("fingerprint", fingerprint);
  PrintBoolean("update-blocked", updateBlocked);
  // Before Disconnect, whose own outcome would take the place of the one asked for.
  PrintLastError(connection);
  connection->Disconnect();
  return fingerprint.empty() ? 1 : 0;
}

int RunCommand(const HeartbeatCommand&, IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  return PrintResult(connection->PostHeartbeat(), connection);
}

int RunCommand(const TestConnectionCommand&, IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  return PrintResult(connection->TestConnection(), connection);
}

int RunCommand(const RegisterCommand& command, IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  return PrintResult(connection->RegisterInstance(command.osVersion, command.agentVersion), connection);
}

int RunCommand(const UpdateStatusCommand& command, IConnectionFactory& factory) {
  const ServerConnection connection(factory);
  const ACE_Time_Value time(static_cast<time_t>(command.seconds));
  return PrintResult(connection->UpdateStatus(static_cast<AgentUpdateStatus>(command.status), time), connection);
}

}  // namespace sorvex::agent
