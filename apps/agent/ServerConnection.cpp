#include <ServerConnection.h>

#include <Output.h>

#include <stdexcept>

namespace sorvex::agent {

ServerConnection::ServerConnection(WindowsAgentCommon::IConnectionFactory& factory) : m_factory(factory) {
  m_factory.CreateConfigServerConnection(m_pConnection);
  if (!m_pConnection) throw std::runtime_error("the module made no connection to the configuration server");
}

ServerConnection::~ServerConnection() { m_factory.ReleaseConfigServerConnection(m_pConnection); }

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

}  // namespace sorvex::agent
