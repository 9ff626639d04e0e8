// The connection of an agent that has no configuration server.
#pragma once

#include <host/IConfigurationServerConnection.h>
#include <host/ParameterBlock.h>

namespace VaroCommunicationAPI {

/// Answers locally. No state, no locks; any thread.
class NullConfigServerConnection : public WindowsAgentCommon::IConfigurationServerConnection {
 public:
  /// Accepts and ignores the parameters. Returns true.
  bool Initialize(const WindowsAgentCommon::ParameterBlock& parameters);

  bool RegisterInstance(const std::string& osVersion, const std::string& agentVersion) override;
  bool TestConnection() override;
  /// Sends a heartbeat to the agent's own monitor. Always returns false: no server was reached.
  bool PostHeartbeat() override;
  bool UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& time) override;
  /// Returns the MD5 of "AgentConfig.xml" in the configuration directory.
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
};

}  // namespace VaroCommunicationAPI
