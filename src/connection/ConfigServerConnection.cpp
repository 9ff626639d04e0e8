#include "connection/ConfigServerConnection.h"

#include "certificates/CertificateManager.h"
#include "connection/CurlTrace.h"
#include "connection/RequestText.h"
#include "install/ApplicationToken.h"
#include "platform/Files.h"
#include "platform/SocketIo.h"

#include <host/EnvironmentBlockHelper.h>
#include <host/LoggerFactory.h>
#include <host/Paths.h>
#include <host/Text.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <streambuf>

namespace VaroCommunicationAPI {

using WindowsAgentCommon::EnvironmentBlockHelper;
using WindowsAgentCommon::LoggerFactory;

namespace {

constexpr long noContent = 204;
constexpr std::string_view htmlStart = "<html>";

/// Characters allowed in a query (RFC 3986, section 3.4), except those with a meaning in one.
constexpr const char* harmlessInQuery =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$'()*,;=:@/?";

/// An answer held in memory, cut off at a limit: more data make the stream bad.
class AnswerBuffer : private std::streambuf {
 public:
  std::ostream* Stream() { return &m_stream; }
  const std::string& Text() const { return m_text; }

 private:
  static constexpr std::size_t maxBytes = 1048576;

  std::streamsize xsputn(const char* data, std::streamsize size) override {
    const std::size_t taken = std::min(static_cast<std::size_t>(size), maxBytes - m_text.size());
    m_text.append(data, taken);
    return static_cast<std::streamsize>(taken);
  }

  std::string m_text;
  std::ostream m_stream{this};
};

/// Whether the token can be sent in a header: a line break in it would add headers.
bool FitsIntoHeader(std::string_view token) {
  constexpr std::string_view breaks("\r\n\0", 3);
  return token.find_first_of(breaks) == std::string_view::npos;
}

int OnDebug(CURL*, curl_infotype type, char* data, std::size_t size, void* trace) {
  try {
    auto& output = *static_cast<CurlTrace*>(trace);
    const std::string_view piece(data, size);
    switch (type) {
      case CURLINFO_TEXT: output.Add(CurlTrace::Kind::Text, piece); break;
      case CURLINFO_HEADER_IN: output.Add(CurlTrace::Kind::HeaderIn, piece); break;
      case CURLINFO_HEADER_OUT: output.Add(CurlTrace::Kind::HeaderOut, piece); break;
      default: break;
    }
  } catch (...) {
    // No exception may cross libcurl; what cannot be logged is lost.
  }
  return 0;
}

}  // namespace

void ConfigServerConnection::HeaderListDeleter::operator()(curl_slist* list) const {
  for (const curl_slist* header = list; header; header = header->next) {
    Platform::WipeMemory(header->data, std::strlen(header->data));
  }
  curl_slist_free_all(list);
}

void ConfigServerConnection::HandleDeleter::operator()(void* handle) const {
  const Platform::BrokenPipeGuard noSignal;
  curl_easy_cleanup(handle);
}

ConfigServerConnection::ConfigServerConnection() : m_log(LoggerFactory::GetLogger("Code.ConfigServerConnection")) {}

ConfigServerConnection::~ConfigServerConnection() { Shutdown(); }

bool ConfigServerConnection::Initialize(const WindowsAgentCommon::ParameterBlock& parameterBlock) {
  if (m_bInitialized) return true;
  Forget();
  const EnvironmentBlockHelper parameters(parameterBlock);
  parameters.GetStringValue("ApplicationIdentifier", m_strApplicationIdentifier, "");
  m_applicationToken = ReadApplicationToken(parameterBlock);
  parameters.GetStringValue("ConfigurationServer", m_strConfigurationServer, "");
  parameters.GetUInt16Value("ConfigurationServerPort", m_port, 443);
  std::string minProtocol;
  std::string maxProtocol;
  parameters.GetStringValue("ConfigurationServerMinSSLProtocol", minProtocol, "TLSv1");
  parameters.GetStringValue("ConfigurationServerMaxSSLProtocol", maxProtocol, "TLSv1.2");
  m_log = LoggerFactory::GetLogger("Code.ConfigServerConnection." + m_strConfigurationServer);
  if (m_strApplicationIdentifier.find_first_not_of(harmlessInQuery) != std::string::npos) {
    m_log.Warn("ApplicationIdentifier (%s) holds characters that change the URL of a request; it is sent as it is.",
               m_strApplicationIdentifier);
  }
  m_sslProtocols.setRange(minProtocol, maxProtocol, m_log);
  m_strAutoCreationParams = AutoCreationText(parameters, [this](const std::string& text) { return Escape(text); });
  if (!m_strAutoCreationParams.empty()) {
    m_log.Debug("Log source auto-creation parameters: %s", m_strAutoCreationParams);
  }
  m_strConsolePEMPath = WindowsAgentCommon::GetConfigPath() + Platform::configSeparator + L"Console.PEM";
  m_pCertificateManager = std::make_shared<CertificateManager>();
  m_pCertificateManager->SetServer(m_strConfigurationServer);
  m_pCertificateManager->SetPort(m_port);
  m_pCertificateManager->SetProtocolList(m_sslProtocols);
  m_pCertificateManager->SetPEMFilePath(m_strConsolePEMPath);
  bool bVerbose = false;
  parameters.GetBooleanValue("Curl.Verbose", bVerbose, false);
  m_bInitialized = MakeHandle(bVerbose);
  return m_bInitialized;
}

void ConfigServerConnection::Shutdown() {
  m_pCertificateManager.reset();
  m_hCurl.reset();
  m_pHeaders.reset();
  m_pTrace.reset();
  m_applicationToken = {};
  m_bInitialized = false;
}

/// Returns to the state of a new connection.
void ConfigServerConnection::Forget() {
  Shutdown();
  m_lastCurlCode = 0;
  m_lastHttpCode = 0;
  m_szErrorBuffer.fill('\0');
  m_sslProtocols = {};
  m_responseHeaders.Clear();
  m_bWarnOnHtmlRegistration = true;
}

/// Returns false and leaves no handle when libcurl refuses any option: without one it might trust other servers or
/// reveal the token.
bool ConfigServerConnection::MakeHandle(bool bVerbose) {
  m_hCurl.reset(curl_easy_init());
  if (!m_hCurl || !BuildHeaders()) return false;
  m_pTrace = std::make_unique<CurlTrace>(m_log, m_applicationToken);
  const std::string trustFile = WindowsAgentCommon::WideToUtf8(m_strConsolePEMPath);
  bool bAllSet = true;
  const auto set = [&](CURLoption option, auto value) {
    if (curl_easy_setopt(m_hCurl.get(), option, value) != CURLE_OK) bAllSet = false;
  };
  set(CURLOPT_HTTPHEADER, m_pHeaders.get());
  set(CURLOPT_ERRORBUFFER, m_szErrorBuffer.data());
  set(CURLOPT_WRITEFUNCTION, &OnResponseBody);
  set(CURLOPT_HEADERFUNCTION, &OnResponseHeader);
  set(CURLOPT_WRITEDATA, this);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  // The name in the certificate is not compared, deliberately: the file names the one server that is trusted.
  set(CURLOPT_SSL_VERIFYHOST, 0L);
  set(CURLOPT_CERTINFO, 1L);
  set(CURLOPT_CAINFO, trustFile.c_str());
  set(CURLOPT_VERBOSE, bVerbose ? 1L : 0L);
  // Some builds of libcurl also trust a system folder.
  set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
  // libcurl itself would show the token.
  set(CURLOPT_DEBUGFUNCTION, &OnDebug);
  set(CURLOPT_DEBUGDATA, m_pTrace.get());
  if (!bAllSet) m_hCurl.reset();
  return bAllSet;
}

/// The header with the token; none when it cannot be sent in one. Returns false when out of memory.
bool ConfigServerConnection::BuildHeaders() {
  const std::string_view token = m_applicationToken.View();
  if (!FitsIntoHeader(token)) return true;
  constexpr std::string_view name = "SEC: ";
  Platform::SecretText header;
  header.Resize(name.size() + token.size() + 1);
  *std::copy(token.begin(), token.end(), std::copy(name.begin(), name.end(), header.Data())) = '\0';
  m_pHeaders.reset(curl_slist_append(nullptr, header.Data()));
  return m_pHeaders != nullptr;
}

std::string ConfigServerConnection::Escape(const std::string& text) const {
  const std::unique_ptr<char, decltype(&curl_free)> escaped(
      curl_easy_escape(m_hCurl.get(), text.c_str(), static_cast<int>(text.size())), &curl_free);
  return escaped ? escaped.get() : text;
}

const char* ConfigServerConnection::CommandName(CommandId command) {
  switch (command) {
    case CommandId::RegisterInstance: return "RegisterInstance";
    // A connection test is a heartbeat, deliberately.
    case CommandId::TestConnection:
    case CommandId::PostHeartbeat: return "PostHeartbeat";
    case CommandId::UpdateStatus: return "UpdateStatus";
    case CommandId::GetConfigurationFingerprint: return "GetConfigurationFingerprint";
    case CommandId::RetrieveConfiguration: return "RetrieveConfiguration";
    case CommandId::RetrieveSoftwarePatch: return "RetrieveSoftwarePatch";
    default: return "";
  }
}

/// Sends one request, with `extra` appended to its query, and writes the response body to `body`.
bool ConfigServerConnection::RunCommand(CommandId command, const std::string& extra, std::ostream* body) {
  if (m_currentCommand != CommandId::None) return false;
  if (!FitsIntoHeader(m_applicationToken.View())) {
    m_log.Error(
        "Failed to run '%s' command on configuration server: the ApplicationToken holds a line break or a zero byte.",
        CommandName(command));
    return Refuse(CURLE_BAD_FUNCTION_ARGUMENT, "The ApplicationToken holds a line break or a zero byte.");
  }
  if (!m_pCertificateManager->ValidateCertificate()) {
    return Refuse(CURLE_SSL_CONNECT_ERROR,
                  "There was a problem when attempting to retrieve the configuration server's certificate.");
  }
  const std::string url =
      WindowsAgentCommon::Format("https://%hs/console/sorvex?Name=%hs&Identifier=%hs%hs", m_strConfigurationServer,
                                 CommandName(command), m_strApplicationIdentifier, extra);
  long httpCode = 0;
  m_szErrorBuffer.fill('\0');
  CURLcode curlCode = curl_easy_setopt(m_hCurl.get(), CURLOPT_URL, url.c_str());
  // Otherwise the handle would keep the previous request's URL.
  if (curlCode == CURLE_OK) {
    const Platform::BrokenPipeGuard noSignal;
    m_currentCommand = command;
    m_pResponseStream = body;
    curlCode = curl_easy_perform(m_hCurl.get());
    m_pResponseStream = nullptr;
    m_currentCommand = CommandId::None;
    curl_easy_getinfo(m_hCurl.get(), CURLINFO_RESPONSE_CODE, &httpCode);
  }
  m_lastCurlCode = static_cast<std::int32_t>(curlCode);
  m_lastHttpCode = static_cast<std::int32_t>(httpCode);
  if (m_lastCurlCode != CURLE_OK) {
    const std::string text = GetLastErrorMessage();
    // There are no post fields: everything is in the URL.
    m_log.Error(
        "Failed to run '%s' command on configuration server.\n    URL: %hs PostFields: %s\n    Error code: %d %s",
        CommandName(command), url, "", m_lastCurlCode, text.empty() ? text : '(' + text + ')');
  }
  return m_lastCurlCode == CURLE_OK;
}

/// Stores the codes for a request that was not made. Returns false.
bool ConfigServerConnection::Refuse(std::int32_t curlCode, std::string_view text) {
  m_lastCurlCode = curlCode;
  m_lastHttpCode = 0;
  m_szErrorBuffer.fill('\0');
  text.copy(m_szErrorBuffer.data(), m_szErrorBuffer.size() - 1);
  return false;
}

std::size_t ConfigServerConnection::OnResponseBody(char* data, std::size_t size, std::size_t count, void* self) {
  std::ostream* const stream = static_cast<ConfigServerConnection*>(self)->m_pResponseStream;
  if (!stream) return 0;
  try {
    stream->write(data, static_cast<std::streamsize>(size * count));
    return stream->fail() ? 0 : size * count;
  } catch (...) {
    // No exception may cross libcurl.
    return 0;
  }
}

std::size_t ConfigServerConnection::OnResponseHeader(char* data, std::size_t size, std::size_t count, void* self) {
  try {
    static_cast<ConfigServerConnection*>(self)->m_responseHeaders.AddLine({data, size * count});
  } catch (...) {
    // No exception may cross libcurl; the request does not need its headers.
  }
  return size * count;
}

void ConfigServerConnection::WarnOfHtml(CommandId command) const {
  switch (command) {
    case CommandId::RegisterInstance:
      m_log.Warn(
          "RegisterInstance returned no error code, but we received an unexpected response (HTML content). Please "
          "verify that the ApplicationToken is correct and valid.");
      break;
    case CommandId::TestConnection:
      m_log.Warn(
          "TestConnection returned no error code, but we received an unexpected response (HTML content). Please verify "
          "that the ApplicationToken is correct and valid.");
      break;
    case CommandId::PostHeartbeat:
      m_log.Warn(
          "PostHeartbeat returned no error code, but we received an unexpected response (HTML content). Please verify "
          "that the ApplicationToken is correct and valid.");
      break;
    case CommandId::UpdateStatus:
      m_log.Warn(
          "UpdateStatus returned no error code, but we received an unexpected response (HTML content). Please verify "
          "that the ApplicationToken is correct and valid.");
      break;
    case CommandId::GetConfigurationFingerprint:
      m_log.Warn(
          "GetConfigurationFingerprint returned no error code, but we received an unexpected response (HTML content). "
          "Please verify that the ApplicationToken is correct and valid.");
      break;
    case CommandId::None:
    case CommandId::RetrieveConfiguration:
    case CommandId::RetrieveSoftwarePatch: break;
  }
}

/// Whether the body is not the page that a server sends when it rejects the token; logs a warning if it is.
bool ConfigServerConnection::IsAnswer(CommandId command, const std::string& body) const {
  if (body.find(htmlStart) == std::string::npos) return true;
  WarnOfHtml(command);
  return false;
}

bool ConfigServerConnection::RegisterInstance(const std::string& osVersion, const std::string& agentVersion) {
  if (!m_bInitialized) return false;
  AnswerBuffer answer;
  const std::string extra = WindowsAgentCommon::Format("&OS+version=%hs&Sorvex+version=%hs%hs", Escape(osVersion),
                                                       Escape(agentVersion), m_strAutoCreationParams);
  if (!RunCommand(CommandId::RegisterInstance, extra, answer.Stream())) return false;
  if (answer.Text().empty()) return true;
  const bool bHtml = answer.Text().find(htmlStart) != std::string::npos;
  if (bHtml && m_bWarnOnHtmlRegistration) WarnOfHtml(CommandId::RegisterInstance);
  m_bWarnOnHtmlRegistration = !bHtml;
  return !bHtml;
}

bool ConfigServerConnection::TestConnection() {
  if (!m_bInitialized) return false;
  AnswerBuffer answer;
  RunCommand(CommandId::TestConnection, {}, answer.Stream());
  // The result of the command or, while another one is running, of the previous one.
  return m_lastCurlCode == CURLE_OK && IsAnswer(CommandId::TestConnection, answer.Text());
}

bool ConfigServerConnection::PostHeartbeat() {
  if (!m_bInitialized) return false;
  AnswerBuffer answer;
  return RunCommand(CommandId::PostHeartbeat, {}, answer.Stream()) && IsAnswer(CommandId::PostHeartbeat, answer.Text());
}

bool ConfigServerConnection::UpdateStatus(WindowsAgentCommon::AgentUpdateStatus status, const ACE_Time_Value& uptime) {
  if (!m_bInitialized) return false;
  AnswerBuffer answer;
  const std::string extra =
      WindowsAgentCommon::Format("&Status=%d&Uptime=%d", status, static_cast<std::int32_t>(uptime.sec()));
  return RunCommand(CommandId::UpdateStatus, extra, answer.Stream()) &&
         IsAnswer(CommandId::UpdateStatus, answer.Text());
}

std::string ConfigServerConnection::GetConfigurationFingerprint(bool& updateBlocked) {
  if (!m_bInitialized) return {};
  AnswerBuffer answer;
  RunCommand(CommandId::GetConfigurationFingerprint, {}, answer.Stream());
  updateBlocked = m_lastHttpCode == noContent;
  if (updateBlocked || answer.Text().empty()) return {};
  // A different rule from elsewhere, deliberately: only a prefix of the tag itself counts as a page.
  if (htmlStart.starts_with(answer.Text())) {
    WarnOfHtml(CommandId::GetConfigurationFingerprint);
    return {};
  }
  return answer.Text();
}

bool ConfigServerConnection::RetrieveConfiguration(std::ostream& output, std::string&) {
  return m_bInitialized && RunCommand(CommandId::RetrieveConfiguration, {}, &output);
}

bool ConfigServerConnection::RetrieveSoftwarePatch(const std::vector<std::string>& outOfDate, std::ostream& output,
                                                   std::string&) {
  return m_bInitialized &&
         RunCommand(CommandId::RetrieveSoftwarePatch, "&OutOfDateList=" + Escape(ComponentList(outOfDate)), &output);
}

bool ConfigServerConnection::GetServerPublicKey(std::uint8_t*, std::uint32_t& size) {
  size = 0;
  return false;
}

std::int32_t ConfigServerConnection::GetLastErrorCode() const { return m_lastCurlCode; }

std::int32_t ConfigServerConnection::GetLastResultCode() const { return m_lastHttpCode; }

std::string ConfigServerConnection::GetLastErrorMessage() const {
  return {m_szErrorBuffer.begin(), std::find(m_szErrorBuffer.begin(), m_szErrorBuffer.end(), '\0')};
}

bool ConfigServerConnection::Connect() { return true; }

void ConfigServerConnection::Disconnect() {}

}  // namespace VaroCommunicationAPI
