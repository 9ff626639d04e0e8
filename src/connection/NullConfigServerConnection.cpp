#include "connection/NullConfigServerConnection.h"

#include "connection/LocalHeartbeat.h"

#include <host/Digest.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>

namespace VaroCommunicationAPI {

bool NullConfigServerConnection::Initialize(const WindowsAgentCommon::ParameterBlock&) { return true; }

bool NullConfigServerConnection::RegisterInstance(const std::string&, const std::string&) { return true; }

bool NullConfigServerConnection::TestConnection() { return true; }

bool NullConfigServerConnection::PostHeartbeat() {
  WindowsAgentCommon::ServiceConfig* const agentCore = FindAgentCoreConfig();
  if (!agentCore) return false;
  WindowsAgentCommon::LoggerFactory::GetLogger("Code.ConfigServerConnection").Debug("Stand Alone mode: PostHeartbeat");
  PostLocalHeartbeat(*agentCore);
  return false;
}

bool NullConfigServerConnection::UpdateStatus(WindowsAgentCommon::AgentUpdateStatus, const ACE_Time_Value&) {
  return true;
}

std::string NullConfigServerConnection::GetConfigurationFingerprint(bool& updateBlocked) {
  updateBlocked = false;
  return WindowsAgentCommon::MD5Sum(WindowsAgentCommon::GetConfigPath() + L"/AgentConfig.xml");
}

bool NullConfigServerConnection::RetrieveConfiguration(std::ostream&, std::string&) { return false; }

bool NullConfigServerConnection::RetrieveSoftwarePatch(const std::vector<std::string>&, std::ostream&, std::string&) {
  return false;
}

bool NullConfigServerConnection::GetServerPublicKey(std::uint8_t*, std::uint32_t& size) {
  size = 0;
  return false;
}

std::int32_t NullConfigServerConnection::GetLastErrorCode() const { return 0; }

std::int32_t NullConfigServerConnection::GetLastResultCode() const { return 0; }

std::string NullConfigServerConnection::GetLastErrorMessage() const { return "Success"; }

bool NullConfigServerConnection::Connect() { return true; }

void NullConfigServerConnection::Disconnect() {}

}  // namespace VaroCommunicationAPI
