// The configuration server over one TLS connection, with the binary wire protocol.
#pragma once

#include "platform/SecretText.h"

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>
#include <CommunicationAPI/SSLProtocolList.h>
#include <host/IConfigurationServerConnection.h>
#include <host/IRawSocket.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace SSLConfigServerProto {
class ISSLConfigServerAPIClient;
}

namespace VaroCommunicationAPI {

class CertificateManager;
class SocketSerializer;

/// Until `Initialize` every operation returns false (or an empty text). `RegisterInstance`, `UpdateStatus` and
/// `TestConnection` connect and disconnect by themselves; the others need `Connect` before and `Disconnect` after them.
/// An exchange that fails other than by a result code ends the connection. One thread at a time; nothing is thrown.
///
/// The last result code is that of the last exchange, or of the last failure that the agent itself detected; the last
/// error code is the last negative result code.
class SSLConfigServerConnection : public WindowsAgentCommon::IConfigurationServerConnection {
 public:
  SSLConfigServerConnection();
  ~SSLConfigServerConnection() override;

  /// Reads the parameters, which need not outlive the call. Returns true.
  bool Initialize(const WindowsAgentCommon::ParameterBlock& parameters);

  /// After one success, returns true without asking the server.
  bool RegisterInstance(const std::string& osVersion, const std::string& agentVersion) override;
  /// Connects with the diagnostic flag.
  bool TestConnection() override;
  /// Sends a heartbeat to the agent's own monitor. Always returns false: no server was reached.
  bool PostHeartbeat() override;
  bool UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& time) override;
  /// Asks the server for a configuration and keeps it for `RetrieveConfiguration`. Returns 32 times "F" when one
  /// arrived, the agent's own fingerprint when that is up to date, blocked, or the exchange failed, and an empty text
  /// when the server refused or there is no connection.
  std::string GetConfigurationFingerprint(bool& updateBlocked) override;
  bool RetrieveConfiguration(std::ostream& output, std::string& md5) override;
  bool RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                             std::string& md5) override;
  /// The key that came with the last configuration in version 2.0.
  bool GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) override;
  std::int32_t GetLastErrorCode() const override;
  std::int32_t GetLastResultCode() const override;
  std::string GetLastErrorMessage() const override;
  /// When it returns false, there is no connection.
  bool Connect() override;
  void Disconnect() override;

 private:
  bool IsConnected() const;
  bool OpenSocket();
  bool EstablishConnection();
  bool EstablishInOlderVersion();
  void CreateClient();
  std::string ReadLocalFingerprint() const;

  bool Accept(std::uint32_t resultCode);
  bool Fail(std::uint32_t errorCode);
  template <class Operation>
  bool Guard(Operation operation);

  WindowsAgentCommon::Log m_log;
  std::uint32_t m_port = 0;
  std::int32_t m_lastErrorCode = 0;
  std::int32_t m_lastResultCode = 0;
  std::string m_strApplicationIdentifier;
  Platform::SecretText m_applicationToken;
  std::string m_strConfigurationServer;
  std::string m_strServerVersion;  ///< of the wire protocol; empty until a server turned out to use a different one
  SSLProtocolList m_protocols;
  std::uint32_t m_readTimeoutMs = 0;
  std::uint32_t m_connectionFlags = SSLConfigServerProto::CONNECTION_FLAG_NONE;
  std::string m_strAutoCreationParameters;
  std::shared_ptr<CertificateManager> m_pCertificateManager;
  std::shared_ptr<WindowsAgentCommon::IRawSocket> m_pSocket;
  std::shared_ptr<SocketSerializer> m_pSerializer;                             ///< on the socket; exists when that does
  std::shared_ptr<SSLConfigServerProto::ISSLConfigServerAPIClient> m_pClient;  ///< outlives connections
  bool m_bInitialized = false;
  bool m_bRegistered = false;
  const std::wstring m_strKeyContainer;  ///< of the agent's key pair: the default one
};

}  // namespace VaroCommunicationAPI
