// A connection to the central configuration server, over any transport.
#pragma once

#include <SorvexCommonExport.h>

#include <ace/Time_Value.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace WindowsAgentCommon {

/// The agent's own state as it reports it. Any other number is passed on unchanged.
enum AgentUpdateStatus : std::int32_t {
  AGENT_UPDATE_STATUS_STOPPED = 0,
  AGENT_UPDATE_STATUS_RUNNING = 1,
  AGENT_UPDATE_STATUS_UPDATING = 2,
  AGENT_UPDATE_STATUS_FAILED = 3,
};

/// One thread at a time. No operation throws; each reports success by its result, and `GetLastErrorCode`,
/// `GetLastResultCode` and `GetLastErrorMessage` give details. Operations are declared in slot order.
class SORVEXCOMMON_EXPORT IConfigurationServerConnection {
 public:
  IConfigurationServerConnection();
  virtual ~IConfigurationServerConnection();  // 0

  /// Registers this agent instance with the server.
  virtual bool RegisterInstance(const std::string& osVersion, const std::string& agentVersion) = 0;  // 1

  /// Checks whether the server can be reached and accepts this agent.
  virtual bool TestConnection() = 0;  // 2

  virtual bool PostHeartbeat() = 0;  // 3

  /// Reports the agent's status; only whole seconds of `time` are passed on.
  virtual bool UpdateStatus(AgentUpdateStatus status, const ACE_Time_Value& time) = 0;  // 4

  /// Returns the fingerprint (MD5, hexadecimal) of the configuration that the agent should have. Sets
  /// `updateBlocked` when the server has disabled updates for this agent.
  virtual std::string GetConfigurationFingerprint(bool& updateBlocked) = 0;  // 5

  /// Writes the configuration to `output`. `md5` is the expected digest, or receives the delivered one.
  virtual bool RetrieveConfiguration(std::ostream& output, std::string& md5) = 0;  // 6

  /// Writes the patch for the listed components to `output`. `md5` as above.
  virtual bool RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                                     std::string& md5) = 0;  // 7

  /// With a null buffer stores the key's length in `size` and returns true; with a buffer of at least that size
  /// copies the key, stores its length and returns true; otherwise returns false. Without a key: size 0 and false.
  virtual bool GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) = 0;  // 8

  virtual std::int32_t GetLastErrorCode() const = 0;    // 9
  virtual std::int32_t GetLastResultCode() const = 0;   // 10
  virtual std::string GetLastErrorMessage() const = 0;  // 11
  virtual bool Connect() = 0;                           // 12
  virtual void Disconnect() = 0;                        // 13
};

}  // namespace WindowsAgentCommon
