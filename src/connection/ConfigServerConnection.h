// The configuration server over HTTPS: each operation is one request.
#pragma once

#include "connection/ResponseHeaders.h"
#include "platform/SecretText.h"

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/IConfigurationServerConnection.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct curl_slist;

namespace VaroCommunicationAPI {

class CertificateManager;
class CurlTrace;

/// Until `Initialize` every operation fails. One request at a time, from one thread at a time; an operation called from
/// inside another one's stream fails and changes nothing. A stream that fails or throws ends its request. Only running
/// out of memory throws.
///
/// The last error code is libcurl's, the last result code the HTTP status of the response, whatever it is: a page with
/// an error status is a success. libcurl's own time limits are the only ones.
class ConfigServerConnection : public WindowsAgentCommon::IConfigurationServerConnection {
 public:
  ConfigServerConnection();
  ~ConfigServerConnection() override;
  ConfigServerConnection(const ConfigServerConnection&) = delete;
  ConfigServerConnection& operator=(const ConfigServerConnection&) = delete;

  /// Reads the parameters, which need not outlive the call. Returns whether the connection is ready. Once it is,
  /// returns true without reading anything, until `Shutdown`.
  bool Initialize(const WindowsAgentCommon::ParameterBlock& parameters);

  /// Closes the connection to the server and wipes the application token. Idempotent.
  void Shutdown();

  /// Also sends the log-source auto-creation parameters. Logs one warning for consecutive HTML answers.
  bool RegisterInstance(const std::string& osVersion, const std::string& agentVersion) override;
  /// A heartbeat, deliberately. Called from inside another operation's stream, it returns the previous one's result.
  bool TestConnection() override;
  bool PostHeartbeat() override;
  bool UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& uptime) override;
  /// Returns the body unchanged. If the server has no content, updates are blocked and the text is empty.
  std::string GetConfigurationFingerprint(bool& updateBlocked) override;
  /// Writes the body as it arrives, whatever it is. `md5` is neither read nor written.
  bool RetrieveConfiguration(std::ostream& output, std::string& md5) override;
  /// As above.
  bool RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                             std::string& md5) override;
  bool GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) override;
  std::int32_t GetLastErrorCode() const override;
  std::int32_t GetLastResultCode() const override;
  std::string GetLastErrorMessage() const override;
  bool Connect() override;
  void Disconnect() override;

 private:
  friend struct ConfigServerConnectionPeer;

  /// The operation's slot.
  enum class CommandId : std::uint32_t {
    None = 0,
    RegisterInstance = 1,
    TestConnection = 2,
    PostHeartbeat = 3,
    UpdateStatus = 4,
    GetConfigurationFingerprint = 5,
    RetrieveConfiguration = 6,
    RetrieveSoftwarePatch = 7,
  };

  struct HeaderListDeleter {
    void operator()(curl_slist* list) const;  ///< wipes the texts
  };
  struct HandleDeleter {
    void operator()(void* handle) const;
  };

  static const char* CommandName(CommandId command);
  static std::size_t OnResponseBody(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t OnResponseHeader(char* data, std::size_t size, std::size_t count, void* self);

  void Forget();
  bool MakeHandle(bool bVerbose);
  bool BuildHeaders();
  std::string Escape(const std::string& text) const;

  bool RunCommand(CommandId command, const std::string& extra, std::ostream* body);
  bool Refuse(std::int32_t curlCode, std::string_view text);
  void WarnOfHtml(CommandId command) const;
  bool IsAnswer(CommandId command, const std::string& body) const;

  WindowsAgentCommon::Log m_log;
  std::unique_ptr<CurlTrace> m_pTrace;
  std::unique_ptr<curl_slist, HeaderListDeleter> m_pHeaders;  ///< used by the handle
  std::unique_ptr<void, HandleDeleter> m_hCurl;
  std::int32_t m_lastCurlCode = 0;
  std::int32_t m_lastHttpCode = 0;
  std::array<char, 1024> m_szErrorBuffer{};
  CommandId m_currentCommand = CommandId::None;
  std::string m_strApplicationIdentifier;
  Platform::SecretText m_applicationToken;
  std::string m_strConfigurationServer;
  std::uint16_t m_port = 0;
  SSLProtocolList m_sslProtocols;
  std::wstring m_strConsolePEMPath;
  std::string m_strAutoCreationParams;
  ResponseHeaders m_responseHeaders;
  std::ostream* m_pResponseStream = nullptr;  ///< of the running request
  std::shared_ptr<CertificateManager> m_pCertificateManager;
  bool m_bInitialized = false;
  bool m_bWarnOnHtmlRegistration = true;
};

}  // namespace VaroCommunicationAPI
