#include "connection/SSLConfigServerConnection.h"

#include "certificates/CertificateManager.h"
#include "connection/LocalHeartbeat.h"
#include "connection/RequestText.h"
#include "install/ApplicationToken.h"
#include "platform/Files.h"
#include "platform/KeyContainer.h"
#include "platform/SocketErrors.h"
#include "wire/ProtocolMismatchException.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SharedBlock.h"
#include "wire/SocketSerializer.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/IConnectionFactory.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>
#include <host/ServiceLookup.h>
#include <host/SystemError.h>
#include <host/Text.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <locale>
#include <ostream>
#include <string_view>
#include <system_error>

namespace VaroCommunicationAPI {

using WindowsAgentCommon::EnvironmentBlockHelper;
using WindowsAgentCommon::GetConfigPath;
using WindowsAgentCommon::LoggerFactory;

namespace {

// Result codes that decide what is done.
constexpr std::uint32_t noUpdateNeeded = 5;
constexpr std::uint32_t updatesDisabled = 7;
constexpr std::uint32_t certificateNotTrusted = 0x80000003;
constexpr std::uint32_t noResponse = 0x80000004;
constexpr std::uint32_t connectionFailed = 0x80000007;

/// Represents a missing configuration.
constexpr const char* noFingerprint = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";

/// The reader of a socket counts microseconds in 32 bits.
constexpr std::uint32_t maxReadTimeoutSeconds = 4294;
constexpr std::uint32_t maxPort = 65535;

std::uint32_t ReadNumber(const EnvironmentBlockHelper& parameters, const char* key, std::uint32_t defaultValue,
                         std::uint32_t min, std::uint32_t max, const WindowsAgentCommon::Log& log) {
  std::uint32_t value = 0;
  parameters.GetUInt32Value(key, value, defaultValue);
  const std::uint32_t bounded = std::clamp(value, min, max);
  if (bounded != value) log.Warn("%s is %u, which is not within %u to %u; using %u.", key, value, min, max, bounded);
  return bounded;
}

/// What the server is asked for.
std::string BuildCodeIdentifier(const std::vector<std::string>& names) {
  return boost::algorithm::to_lower_copy(ComponentList(names), std::locale::classic());
}

bool WriteBlock(const ACE_Message_Block& block, std::ostream& output) {
  output.write(block.rd_ptr(), static_cast<std::streamsize>(block.length()));
  return output.good();
}

}  // namespace

SSLConfigServerConnection::SSLConfigServerConnection()
    : m_log(LoggerFactory::GetLogger("Code.SSLConfigServerConnection")) {}

SSLConfigServerConnection::~SSLConfigServerConnection() = default;

bool SSLConfigServerConnection::Initialize(const WindowsAgentCommon::ParameterBlock& parameterBlock) {
  const EnvironmentBlockHelper parameters(parameterBlock);
  parameters.GetStringValue("ApplicationIdentifier", m_strApplicationIdentifier, "");
  m_applicationToken = ReadApplicationToken(parameterBlock);
  parameters.GetStringValue("ConfigurationServer", m_strConfigurationServer, "");
  m_port = ReadNumber(parameters, "ConfigurationServerPort", 8413, 0, maxPort, m_log);
  m_readTimeoutMs =
      ReadNumber(parameters, "ConfigurationServerReadTimeout", 120, 1, maxReadTimeoutSeconds, m_log) * 1000;
  std::string minProtocol;
  std::string maxProtocol;
  parameters.GetStringValue("ConfigurationServerMinSSLProtocol", minProtocol, "TLSv1");
  parameters.GetStringValue("ConfigurationServerMaxSSLProtocol", maxProtocol, "TLSv1.2");
  m_strAutoCreationParameters = AutoCreationText(parameters, [](const std::string& text) { return text; });
  m_log.Debug("Log source auto-creation parameters: %s", m_strAutoCreationParameters);
  m_log = LoggerFactory::GetLogger("Code.SSLConfigServerConnection." + m_strConfigurationServer);
  m_protocols.setRange(minProtocol, maxProtocol, m_log);
  m_pCertificateManager = std::make_shared<CertificateManager>();
  m_pCertificateManager->SetServer(m_strConfigurationServer);
  m_pCertificateManager->SetPort(static_cast<std::uint16_t>(m_port));
  m_pCertificateManager->SetProtocolList(m_protocols);
  m_pCertificateManager->SetPEMFilePath(GetConfigPath() + Platform::configSeparator + L"ConfigurationServer.PEM");
  m_bInitialized = true;
  return true;
}

bool SSLConfigServerConnection::RegisterInstance(const std::string& osVersion, const std::string& agentVersion) {
  if (!m_bInitialized) return false;
  if (m_bRegistered) return true;
  m_bRegistered = Connect() && Guard([&] {
                    return Accept(m_pClient->RegisterInstance(*m_pSerializer, osVersion, agentVersion,
                                                              m_strAutoCreationParameters));
                  });
  Disconnect();
  return m_bRegistered;
}

bool SSLConfigServerConnection::TestConnection() {
  if (!m_bInitialized) return false;
  m_connectionFlags = SSLConfigServerProto::CONNECTION_FLAG_DIAGNOSTIC;
  const bool bConnected = Connect();
  m_connectionFlags = SSLConfigServerProto::CONNECTION_FLAG_NONE;
  Disconnect();
  return bConnected;
}

bool SSLConfigServerConnection::PostHeartbeat() {
  if (!m_bInitialized) return false;
  if (WindowsAgentCommon::ServiceConfig* const agentCore = FindAgentCoreConfig()) PostLocalHeartbeat(*agentCore);
  return false;
}

bool SSLConfigServerConnection::UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& time) {
  if (!m_bInitialized) return false;
  const bool bUpdated = Connect() && Guard([&] {
                          return Accept(m_pClient->UpdateStatus(*m_pSerializer, static_cast<std::uint32_t>(status),
                                                                static_cast<std::uint32_t>(time.sec())));
                        });
  Disconnect();
  return bUpdated;
}

std::string SSLConfigServerConnection::GetConfigurationFingerprint(bool& updateBlocked) {
  updateBlocked = false;
  if (!IsConnected() || !m_pClient) return {};
  const std::string localFingerprint = ReadLocalFingerprint();
  bool bAnswered = false;
  const bool bAccepted = Guard([&] {
    const std::uint32_t resultCode = m_pClient->ConfigurationUpdate(*m_pSerializer, localFingerprint);
    bAnswered = true;
    return Accept(resultCode);
  });
  if (!bAnswered) return localFingerprint;
  if (!bAccepted) return {};
  switch (m_lastResultCode) {
    case updatesDisabled: updateBlocked = true; return localFingerprint;
    case noUpdateNeeded: return localFingerprint;
    default: return noFingerprint;
  }
}

std::string SSLConfigServerConnection::ReadLocalFingerprint() const {
  const std::wstring path = GetConfigPath() + L"/AgentConfig.md5";
  constexpr std::size_t maxBytes = 128;
  Platform::SecretText content;
  std::error_code ignored;
  const bool bExists = std::filesystem::exists(WindowsAgentCommon::WideToPath(path), ignored);
  if (bExists && Platform::ReadFileHead(path, maxBytes, content) != 0) {
    m_log.Warn("AgentConfig.md5 is present but could not be read - this will force a configuration update.");
    return noFingerprint;
  }
  std::string text(content.View().substr(0, content.View().find('\0')));
  boost::algorithm::trim_if(text, boost::algorithm::is_any_of("\r\n"));
  if (text.empty()) {
    m_log.Info("AgentConfig.md5 is not present - this will force a configuration update.");
    return noFingerprint;
  }
  return text;
}

bool SSLConfigServerConnection::RetrieveConfiguration(std::ostream& output, std::string& md5) {
  if (!m_pSocket || !m_pClient) return false;
  return Guard([&] {
    std::shared_ptr<ACE_Message_Block> block;
    return m_pClient->GetConfigurationData(block, md5) && WriteBlock(*block, output);
  });
}

bool SSLConfigServerConnection::RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                                                      std::string& md5) {
  if (outOfDate.empty()) return true;
  if (!m_pSocket || !m_pClient) return false;
  return Guard([&] {
    std::shared_ptr<ACE_Message_Block> block;
    return Accept(m_pClient->CodeUpdate(*m_pSerializer, BuildCodeIdentifier(outOfDate))) &&
           m_pClient->GetCodeData(block, md5) && WriteBlock(*block, output);
  });
}

bool SSLConfigServerConnection::GetServerPublicKey(std::uint8_t* buffer, std::uint32_t& size) {
  return Guard([&] {
    std::shared_ptr<ACE_Message_Block> key;
    if (!m_pClient || !m_pClient->GetServerPublicKey(key)) {
      size = 0;
      return false;
    }
    if (buffer && size < key->length()) return false;
    size = static_cast<std::uint32_t>(key->length());
    if (buffer) std::memcpy(buffer, key->rd_ptr(), size);
    return true;
  });
}

std::int32_t SSLConfigServerConnection::GetLastErrorCode() const { return m_lastErrorCode; }

std::int32_t SSLConfigServerConnection::GetLastResultCode() const { return m_lastResultCode; }

std::string SSLConfigServerConnection::GetLastErrorMessage() const {
  return SSLConfigServerProto::ResultText(static_cast<std::uint32_t>(m_lastErrorCode));
}

bool SSLConfigServerConnection::Connect() {
  if (!m_bInitialized) return false;
  if (IsConnected()) return true;
  const bool bConnected = Guard([this] { return OpenSocket() && EstablishConnection(); });
  if (!bConnected) Disconnect();
  return bConnected;
}

void SSLConfigServerConnection::Disconnect() {
  m_pSerializer.reset();
  if (m_pSocket) m_pSocket->Close();
  m_pSocket.reset();
}

bool SSLConfigServerConnection::IsConnected() const { return m_pSocket && m_pSocket->IsConnected(); }

bool SSLConfigServerConnection::OpenSocket() {
  if (!m_pCertificateManager->ValidateCertificate()) return Fail(certificateNotTrusted);
  using namespace WindowsAgentCommon;
  auto* const factory = GetService<IConnectionFactory>();
  if (!factory) {
    m_log.Error("The service %s is not loaded; no socket can be made.", IConnectionFactory::GetServiceName());
    return Fail(connectionFailed);
  }
  factory->CreateSSLSocket(SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET | SOCKET_FLAG_RAW, m_protocols, m_pSocket);
  m_pSocket->Open(Utf8ToWide(m_strConfigurationServer), m_port);
  if (!m_pSocket->IsConnected()) return Fail(connectionFailed);
  m_pSerializer = std::make_shared<SocketSerializer>(m_pSocket);
  m_pSerializer->SetReadTimeout(m_readTimeoutMs);
  return true;
}

/// Without a client returns false and does not change the codes.
bool SSLConfigServerConnection::EstablishConnection() {
  if (!m_pClient) CreateClient();
  if (!m_pClient) return false;
  try {
    return Accept(m_pClient->ConnectionEstablishment(*m_pSerializer, m_connectionFlags));
  } catch (const SSLConfigServerProto::ProtocolMismatchException& mismatch) {
    m_strServerVersion = mismatch.GetServerVersion();
  }
  CreateClient();
  return m_pClient && EstablishInOlderVersion();
}

/// The server has answered in its own version and may now continue, have closed the connection, or have sent the rest
/// of its answer. After any failure except a time-out, try once more on a new connection.
bool SSLConfigServerConnection::EstablishInOlderVersion() {
  try {
    return Accept(m_pClient->ConnectionEstablishment(*m_pSerializer, m_connectionFlags));
  } catch (const WindowsAgentCommon::SocketException&) {
    if (m_pSocket->GetLastResultCode() == Platform::ErrorWaitTimeout.Number()) throw;
  }
  m_log.Info("The connection on which the server told its wire protocol is of no further use; connecting anew.");
  if (!m_pSocket->Connect()) return Fail(connectionFailed);
  return Accept(m_pClient->ConnectionEstablishment(*m_pSerializer, m_connectionFlags));
}

/// Leaves no client when the agent's key, which version 2.0 sends, cannot be read.
void SSLConfigServerConnection::CreateClient() {
  m_pClient.reset();
  if (m_strServerVersion == "1.0") {
    m_log.Debug("Configuration server is using wire protocol v1.0.");
    m_pClient = std::make_shared<SSLConfigServerProto::SSLConfigServerAPIClient_v1>(m_strApplicationIdentifier,
                                                                                    m_applicationToken.View());
    return;
  }
  if (m_strServerVersion.empty()) {
    m_log.Debug("Server version is unknown; defaulting to latest wire protocol version (v2.0).");
  } else {
    m_log.Debug("Configuration server is using wire protocol v2.0.");
  }
  std::vector<std::uint8_t> key;
  if (const int error = Platform::ExportPublicKey(m_strKeyContainer, key); error != 0) {
    m_log.Error("An error occurred when attempting to retrieve the agent's public key. Reason: %s",
                WindowsAgentCommon::GetLastErrorText(error));
    return;
  }
  m_log.Debug("Public key length reported to be %u bytes long. Retrieving...", key.size());
  const auto block = SSLConfigServerProto::MakeSharedBlock(key.size());
  block->copy(reinterpret_cast<const char*>(key.data()), key.size());
  m_log.Debug("Retrieved public key. Creating API interface.");
  m_pClient = std::make_shared<SSLConfigServerProto::SSLConfigServerAPIClient_v2>(m_strApplicationIdentifier,
                                                                                  m_applicationToken.View(), *block);
}

/// Stores the result code of an exchange. Returns whether it is a success.
bool SSLConfigServerConnection::Accept(std::uint32_t resultCode) {
  m_lastResultCode = static_cast<std::int32_t>(resultCode);
  if (m_lastResultCode >= 0) return true;
  m_lastErrorCode = m_lastResultCode;
  return false;
}

/// Stores the code of a failure that the agent itself detected. Returns false.
bool SSLConfigServerConnection::Fail(std::uint32_t errorCode) { return Accept(errorCode); }

/// Returns the result of `operation`. If it throws, the stream is out of step and the connection is dropped.
template <class Operation>
bool SSLConfigServerConnection::Guard(Operation operation) {
  try {
    return operation();
  } catch (const std::exception& failure) {
    m_log.Debug("The exchange with the configuration server failed: %s", failure.what());
  }
  Disconnect();
  return Fail(noResponse);
}

}  // namespace VaroCommunicationAPI
