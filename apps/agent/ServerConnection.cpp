#include <ServerConnection.h>

#include <Output.h>
#include <ServerAnswer.h>

#include <stdexcept>

namespace sorvex::agent {

ServerConnection::ServerConnection(WindowsAgentCommon::IConnectionFactory& factory)
    : m_factory(factory), m_mode(GetConnectionMode(factory)) {
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
  const ServerAnswer answer = LastAnswer(connection);
  const bool isError = connection.Mode() == ConnectionMode::Https &&
                       (answer == ServerAnswer::Failure || answer == ServerAnswer::NotFound);
  const bool succeeded = result && !isError;
  PrintBoolean("result", succeeded);
  PrintLastError(connection);
  return succeeded ? 0 : 1;
}

}  // namespace sorvex::agent
