// An agent with its configuration server over HTTPS. Requests go to port 443, which a proxy of the test redirects; the
// certificate is fetched without it.
#pragma once

#include "AgentFixture.h"
#include "integration/configserver/ConfigServerProcess.h"
#include "support/ConnectProxy.h"

#include <memory>
#include <string>
#include <vector>

namespace sorvex::test {

/// An agent installed for the server.
class HttpsServedAgent {
 public:
  static constexpr const char* token = "8a2b4c6d-0e1f-4a3b-9c5d-7e8f9a0b1c2d";

  explicit HttpsServedAgent(const std::vector<std::string>& serverArguments = {}) : m_server(serverArguments) {
    InstallFor(m_server);
    m_server.Write("tokens.txt", std::string(token) + "\n");
  }

  /// Makes this server the agent's from now on.
  void InstallFor(const ConfigServer& server) {
    m_pProxyOfProcess = nullptr;
    m_pProxy = std::make_unique<ConnectProxy>(server.HttpsPort());
    m_pProxyOfProcess = std::make_unique<ScopedProxy>(m_pProxy->Port());
    m_installation.Directory().Write(
        "install_config.txt",
        "ConfigurationServer=127.0.0.1\nConfigurationServerPort=" + std::to_string(server.HttpsPort()) +
            "\nForceHTTPSConfigServerConnection=true\nApplicationIdentifier=agent-7\nApplicationToken=" + token + "\n");
  }

  const Installation& GetInstallation() const { return m_installation; }
  ConfigServer& Server() { return m_server; }
  const ConnectProxy& Proxy() const { return *m_pProxy; }
  const TemporaryDirectory& Directory() const { return m_installation.Directory(); }

 private:
  ConfigServer m_server;
  Installation m_installation;
  std::unique_ptr<ConnectProxy> m_pProxy;
  std::unique_ptr<ScopedProxy> m_pProxyOfProcess;
};

}  // namespace sorvex::test
