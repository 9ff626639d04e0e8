// Stands in for a connection that this version of the module cannot make yet.
#pragma once

#include <host/IConfigurationServerConnection.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

namespace VaroCommunicationAPI {

/// Every operation fails and says so at Error. One thread at a time.
class UnavailableConfigServerConnection : public WindowsAgentCommon::IConfigurationServerConnection {
 public:
  /// `transport` names what is missing, for the log. A literal.
  explicit UnavailableConfigServerConnection(const char* transport);

  /// Reads the server's name for the log. Returns false.
  bool Initialize(const WindowsAgentCommon::ParameterBlock& parameters);

  bool RegisterInstance(const std::string& osVersion, const std::string& agentVersion) override;
  bool TestConnection() override;
  bool PostHeartbeat() override;
  bool UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& time) override;
  std::string GetConfigurationFingerprint(bool& updateBlocked) override;
  bool RetrieveConfiguration(std::ostream& output, std::string& md5) override;
  bool RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                             std::string& md5) override;
  bool GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) override;
  std::int32_t GetLastErrorCode() const override;
  std::int32_t GetLastResultCode() const override;
  std::string GetLastErrorMessage() const override;
  bool Connect() override;
  void Disconnect() override;

 private:
  bool Refuse(const char* operation) const;

  const char* m_pTransport;
  std::string m_strServer;
  WindowsAgentCommon::Log m_log;
};

}  // namespace VaroCommunicationAPI
