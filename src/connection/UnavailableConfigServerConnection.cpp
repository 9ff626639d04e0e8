#include "connection/UnavailableConfigServerConnection.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/LoggerFactory.h>

namespace VaroCommunicationAPI {

namespace {

/// The result code of a connection that could not be made.
constexpr std::int32_t connectionFailed = static_cast<std::int32_t>(0x80000007);

}  // namespace

UnavailableConfigServerConnection::UnavailableConfigServerConnection(const char* transport)
    : m_pTransport(transport),
      m_log(WindowsAgentCommon::LoggerFactory::GetLogger("Code.UnavailableConfigServerConnection")) {}

bool UnavailableConfigServerConnection::Initialize(const WindowsAgentCommon::ParameterBlock& parameters) {
  WindowsAgentCommon::EnvironmentBlockHelper(parameters).GetStringValue("ConfigurationServer", m_strServer, "");
  return false;
}

bool UnavailableConfigServerConnection::Refuse(const char* operation) const {
  m_log.Error("%s failed: the %s connection to configuration server %s is not part of this version.", operation,
              m_pTransport, m_strServer);
  return false;
}

bool UnavailableConfigServerConnection::RegisterInstance(const std::string&, const std::string&) {
  return Refuse("RegisterInstance");
}

bool UnavailableConfigServerConnection::TestConnection() { return Refuse("TestConnection"); }

bool UnavailableConfigServerConnection::PostHeartbeat() { return Refuse("PostHeartbeat"); }

bool UnavailableConfigServerConnection::UpdateStatus(WindowsAgentCommon::AgentUpdateStatus, const ACE_Time_Value&) {
  return Refuse("UpdateStatus");
}

std::string UnavailableConfigServerConnection::GetConfigurationFingerprint(bool& updateBlocked) {
  updateBlocked = false;
  Refuse("GetConfigurationFingerprint");
  return {};
}

bool UnavailableConfigServerConnection::RetrieveConfiguration(std::ostream&, std::string&) {
  return Refuse("RetrieveConfiguration");
}

bool UnavailableConfigServerConnection::RetrieveSoftwarePatch(const std::vector<std::string>&, std::ostream&,
                                                              std::string&) {
  return Refuse("RetrieveSoftwarePatch");
}

bool UnavailableConfigServerConnection::GetServerPublicKey(std::uint8_t*, std::uint32_t& size) {
  size = 0;
  return Refuse("GetServerPublicKey");
}

std::int32_t UnavailableConfigServerConnection::GetLastErrorCode() const { return connectionFailed; }

std::int32_t UnavailableConfigServerConnection::GetLastResultCode() const { return connectionFailed; }

std::string UnavailableConfigServerConnection::GetLastErrorMessage() const {
  return "The socket connection to the server failed";
}

bool UnavailableConfigServerConnection::Connect() { return Refuse("Connect"); }

void UnavailableConfigServerConnection::Disconnect() {}

}  // namespace VaroCommunicationAPI
