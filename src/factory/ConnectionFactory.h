// The module's one component.
#pragma once

#include <host/IConnectionFactory.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>
#include <host/ServiceComponentBase.h>

#include <ace/Service_Object.h>

#include <memory>
#include <string>
#include <vector>

class ACE_Dynamic_Service_Dependency;

namespace VaroCommunicationAPI {

/// Reads the installation, decides how the agent connects to its configuration server, and makes connections and
/// sockets. `Initialize` and `Shutdown` are called from one thread; between them any thread may call the rest. No
/// threads of its own.
class ConnectionFactory
    : public WindowsAgentCommon::ServiceComponentBase<WindowsAgentCommon::IConnectionFactory, ACE_Service_Object> {
 public:
  ConnectionFactory();
  /// Wipes the application token.
  ~ConnectionFactory() override;

  int Initialize(const WindowsAgentCommon::ServiceConfig& config) override;
  std::string GetVersion() const override;
  void Shutdown() override;
  bool IsStandAloneMode() const override;
  void CreateSocket(std::uint8_t flags, std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override;
  void CreateSSLSocket(std::uint8_t flags, const SSLProtocolList& protocols,
                       std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override;
  void CreateConfigServerConnection(
      std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>& connection) override;
  void ReleaseConfigServerConnection(
      std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>& connection) override;
  bool GetParameter(const std::string& name, std::string& value) const override;

 private:
  /// Keeps the host service `serviceName` loaded as long as this component. Returns false when it is registered but
  /// cannot be loaded.
  bool DependOn(const char* serviceName);

  /// Returns to the state of a new component; wipes the application token.
  void ForgetInstallation();

  /// Fills the parameters from the install file, the manifests and the marker. Returns whether there are any.
  bool ReadInstallation(const std::wstring& installFilePath);

  /// Derives the mode from the parameters.
  void ChooseMode();

  WindowsAgentCommon::ParameterBlock m_parameters;
  bool m_bStandAlone = false;
  bool m_bForceDeploy = false;
  bool m_bForceHTTPS = false;
  std::vector<std::shared_ptr<ACE_Dynamic_Service_Dependency>> m_dependencies;
  WindowsAgentCommon::Log m_log;
};

}  // namespace VaroCommunicationAPI
