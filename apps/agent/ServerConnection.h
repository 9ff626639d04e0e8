// The connection to the configuration server that the commands use, and its output.
#pragma once

#include <ConnectionMode.h>

#include <host/IConfigurationServerConnection.h>
#include <host/IConnectionFactory.h>

#include <memory>

namespace sorvex::agent {

/// Released at the end of the scope.
class ServerConnection {
 public:
  /// Throws `std::runtime_error` when the module makes none.
  explicit ServerConnection(WindowsAgentCommon::IConnectionFactory& factory);
  ~ServerConnection();
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  ConnectionMode Mode() const { return m_mode; }

  WindowsAgentCommon::IConfigurationServerConnection* operator->() const { return m_pConnection.get(); }

 private:
  WindowsAgentCommon::IConnectionFactory& m_factory;
  const ConnectionMode m_mode;
  std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection> m_pConnection;
};

/// Prints error-code, result-code and error-message.
void PrintLastError(const ServerConnection& connection);

/// Prints result and the above; returns the command's exit status. Over HTTPS an error status counts as a failure,
/// although the module reports success.
int PrintResult(bool result, const ServerConnection& connection);

}  // namespace sorvex::agent
