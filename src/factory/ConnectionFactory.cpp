#include "factory/ConnectionFactory.h"

#include "connection/ConfigServerConnection.h"
#include "connection/NullConfigServerConnection.h"
#include "connection/SSLConfigServerConnection.h"
#include "factory/ModuleVersion.h"
#include "install/ApplicationToken.h"
#include "install/AutoCreationFile.h"
#include "install/ForceDeployMarker.h"
#include "install/InstallConfigFileProcessor.h"
#include "install/VersionManifests.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/IComponentFactory.h>
#include <host/ISecurityManager.h>
#include <host/IStatisticsServer.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>
#include <host/ServiceLookup.h>
#include <host/VersionText.h>

#include <ace/Dynamic_Service_Dependency.h>
#include <ace/Service_Config.h>
#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

namespace VaroCommunicationAPI {

namespace {

using WindowsAgentCommon::EnvironmentBlockHelper;

/// The path that the host's parameter `name` gives, else `defaultFile` in the configuration directory.
std::wstring InstallationFile(const EnvironmentBlockHelper& hostParameters, const char* name,
                              const wchar_t* defaultFile) {
  std::wstring path;
  hostParameters.GetWideStringValue(name, path, WindowsAgentCommon::GetConfigPath() + L"/" + defaultFile);
  return path;
}

void InitialiseTlsLibrary() {
  SSL_load_error_strings();
  SSL_library_init();
  OpenSSL_add_all_algorithms();
}

}  // namespace

ConnectionFactory::ConnectionFactory()
    : m_log(WindowsAgentCommon::LoggerFactory::GetLogger("Code.ConnectionFactory")) {}

ConnectionFactory::~ConnectionFactory() { ForgetInstallation(); }

void ConnectionFactory::ForgetInstallation() {
  WipeApplicationToken(m_parameters);
  m_parameters.clear();
  m_bStandAlone = m_bForceDeploy = m_bForceHTTPS = false;
  m_dependencies.clear();
}

int ConnectionFactory::Initialize(const WindowsAgentCommon::ServiceConfig& config) {
  if (m_bInitialized) return WindowsAgentCommon::SERVICE_INITIALIZE_READY;
  if (!WindowsAgentCommon::GetComponentFactory()) return WindowsAgentCommon::SERVICE_INITIALIZE_FAILED;
  // A component that was shut down, or failed before, starts afresh.
  ForgetInstallation();
  if (!DependOn(WindowsAgentCommon::IStatisticsServer::GetServiceName()) ||
      !DependOn(WindowsAgentCommon::ISecurityManager::GetServiceName())) {
    return WindowsAgentCommon::SERVICE_INITIALIZE_DEPENDENCY_MISSING;
  }
  m_serviceConfig = config;
  if (!WindowsAgentCommon::GetService<WindowsAgentCommon::ISecurityManager>()) InitialiseTlsLibrary();
  curl_global_init(0);

  // Only the two paths are taken from the host's parameters.
  const EnvironmentBlockHelper hostParameters(m_serviceConfig.m_parameters);
  if (!ReadInstallation(InstallationFile(hostParameters, "InstallConfigurationFile", L"install_config.txt"))) {
    return WindowsAgentCommon::SERVICE_INITIALIZE_FAILED;
  }
  ProcessAutoCreationFile(
      InstallationFile(hostParameters, "InstallConfigurationLogSourceAutoCreateFile", L"install_config_autocreate.txt"),
      m_parameters, m_log);
  ChooseMode();
  m_bInitialized = true;
  return WindowsAgentCommon::SERVICE_INITIALIZE_READY;
}

bool ConnectionFactory::DependOn(const char* serviceName) {
  WindowsAgentCommon::IComponentFactory& componentFactory = *WindowsAgentCommon::GetComponentFactory();
  if (!componentFactory.IsServiceRegistered(serviceName)) return true;
  // A dependency on a service that is not in the repository would be a null dereference inside ACE.
  if (!componentFactory.LoadService(serviceName) || !WindowsAgentCommon::_getService(serviceName)) return false;
  const std::string name = WindowsAgentCommon::Format("%hs_Dynamic_Service", serviceName);
  m_dependencies.push_back(
      std::make_shared<ACE_Dynamic_Service_Dependency>(ACE_Service_Config::current(), name.c_str()));
  return true;
}

bool ConnectionFactory::ReadInstallation(const std::wstring& installFilePath) {
  InstallConfigFileProcessor processor;
  if (processor.Process(installFilePath, m_parameters) != 0) {
    m_log.Warn("There was a problem when parsing the install configuration in %s (Reason: %s).", installFilePath,
               processor.GetMessageText());
  }
  ReadVersionManifests(installFilePath, m_parameters);
  if (IsForceDeployRequested()) {
    m_bForceDeploy = true;
    m_parameters.emplace("ForceDeploy", "True");
  }
  return !m_parameters.empty();
}

void ConnectionFactory::ChooseMode() {
  const EnvironmentBlockHelper parameters(m_parameters);
  std::string server;
  parameters.GetStringValue("ConfigurationServer", server, "");
  m_bStandAlone = server.empty();
  if (m_bStandAlone) {
    m_log.Info(
        "No configuration server was specified in the install parameters; operating in 'stand-alone' mode "
        "(configuration updates must be manually applied).");
    return;
  }
  parameters.GetBooleanValue("ForceHTTPSConfigServerConnection", m_bForceHTTPS, false);
  if (m_bForceHTTPS) {
    m_log.Debug("Forcing config server connection to legacy https protocol.");
  } else {
    m_log.Debug("Config server connection configured for ssl direct protocol.");
  }
}

std::string ConnectionFactory::GetVersion() const {
  return WindowsAgentCommon::FormatVersion(versionMajor, versionMinor, versionPatch);
}

void ConnectionFactory::Shutdown() {
  TidyForceDeployMarker(m_log);
  m_bInitialized = false;
}

bool ConnectionFactory::IsStandAloneMode() const { return m_bStandAlone || m_bForceDeploy; }

void ConnectionFactory::CreateConfigServerConnection(
    std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>& connection) {
  // The connection is returned even if its initialisation failed: it then refuses its operations.
  if (m_bStandAlone) {
    m_log.Debug("creating stand alone mode config server connection");
    const auto standAlone = std::make_shared<NullConfigServerConnection>();
    standAlone->Initialize(m_parameters);
    connection = standAlone;
  } else if (m_bForceHTTPS) {
    m_log.Debug("creating config server connection");
    const auto https = std::make_shared<ConfigServerConnection>();
    https->Initialize(m_parameters);
    connection = https;
  } else {
    m_log.Debug("creating SSL config server connection");
    const auto directTls = std::make_shared<SSLConfigServerConnection>();
    directTls->Initialize(m_parameters);
    connection = directTls;
  }
}

void ConnectionFactory::ReleaseConfigServerConnection(
    std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection>& connection) {
  if (!connection) return;
  if (auto* const https = dynamic_cast<ConfigServerConnection*>(connection.get())) {
    https->Shutdown();
  } else if (!m_bStandAlone) {
    connection->Disconnect();
  }
  connection.reset();
}

bool ConnectionFactory::GetParameter(const std::string& name, std::string& value) const {
  return EnvironmentBlockHelper(m_parameters).GetStringValue(name, value, "");
}

}  // namespace VaroCommunicationAPI
