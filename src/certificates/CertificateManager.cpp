#include "certificates/CertificateManager.h"

#include "platform/AtomicFile.h"
#include "platform/NameResolver.h"
#include "platform/SocketIo.h"
#include "platform/SystemError.h"

#include <host/LoggerFactory.h>
#include <host/SystemError.h>
#include <host/Text.h>

#include <ace/SSL/SSL_Context.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace VaroCommunicationAPI {

using WindowsAgentCommon::GetLastErrorText;
using WindowsAgentCommon::LoggerFactory;

CertificateManager::CertificateManager(std::chrono::milliseconds handshakeLimit, CertificateServices services)
    : m_log(LoggerFactory::GetLogger("Code.CertificateManager")),
      m_handshakeLimit(handshakeLimit),
      m_services(std::move(services)) {}

CertificateManager::~CertificateManager() = default;

void CertificateManager::SetServer(const std::string& server) { m_strServer = server; }

void CertificateManager::SetPort(std::uint16_t port) { m_port = port; }

void CertificateManager::SetProtocolList(const SSLProtocolList& protocols) { m_protocols = protocols; }

void CertificateManager::SetPEMFilePath(const std::wstring& path) {
  m_strPEMPath = path;
  std::error_code ignored;
  m_bHaveCertificate = std::filesystem::exists(WindowsAgentCommon::WideToPath(path), ignored);
}

bool CertificateManager::ValidateCertificate() {
  if (m_strPEMPath.empty()) return false;
  if (m_bHaveCertificate) return true;
  m_log = LoggerFactory::GetLogger("Code.CertificateManager." + m_strServer);
  std::string text;
  if (!RetrieveServerCertificateText(text)) return false;
  m_bHaveCertificate = WriteCertificateChainFile(m_strPEMPath, text);
  if (!m_bHaveCertificate) {
    m_log.Error("Failed to process the certificate from the configuration server. Reason: %s",
                GetLastErrorText(m_lastError));
  }
  return m_bHaveCertificate;
}

bool CertificateManager::RetrieveServerCertificateText(std::string& text) {
  text.clear();
  m_log.Info("Attempting to retrieve the certificate from the configuration server");
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  SSL_CTX_set_session_cache_mode(context.context(), SSL_SESS_CACHE_OFF);
  m_protocols.applyTo(context);
  TlsStream stream(context, StreamUse::Exchange, m_handshakeLimit);
  if (const SocketError error = ConnectToServer(stream)) {
    m_log.Error("Cannot connect to configuration server (%d)", error.Number());
    stream.ReportReason(m_log);
    return false;
  }
  stream.ReportConnect(m_log, {});
  text = m_services.m_peerCertificateText(stream);
  if (text.empty()) m_log.Error("Failed to validate the certificate from the configuration server");
  return !text.empty();
}

/// The server is not verified here: the caller checks its certificate afterwards.
SocketError CertificateManager::ConnectToServer(TlsStream& stream) const {
  const auto goOn = [] { return false; };
  const std::wstring server = WindowsAgentCommon::Utf8ToWide(m_strServer);
  const Platform::ResolvedHost resolved = Platform::ResolveHost(server, m_port, Platform::AddressFamily::Any, goOn);
  if (resolved.m_error) return resolved.m_error;
  return stream.Connect(resolved.m_addresses, server, goOn);
}

bool CertificateManager::GetContextFromCertificateText(const std::string& text, CertificateHolder& holder) {
  if (const int error = CertificateHolder::FromPem(text, holder); error != 0) {
    m_log.Error("GetContextFromCertificateText: Failed to retrieve context from certificate text. Reason: %s",
                GetLastErrorText(error));
    m_lastError = error;
    holder = {};
    return false;
  }
  std::wstring name;
  GetSubjectDisplayName(holder, name);
  m_log.Debug("GetContextFromCertificateText: Converted PEM text for certificate subject %s", name);
  return true;
}

std::size_t CertificateManager::RetrieveChainTextForContext(const CertificateHolder& holder,
                                                            std::vector<std::string>& chain) {
  Platform::CertificateStore authorities;
  if (const int error = m_services.m_openStore(L"CA", authorities); error != 0) {
    m_log.Error("RetrieveChainTextForContext: Could not open the system certificate store (CA).. Reason: %s",
                GetLastErrorText(error));
    m_lastError = error;
    return 0;
  }
  std::wstring name;
  GetSubjectDisplayName(holder, name);
  std::string text;
  if (!CertificateToText(holder, text)) {
    m_lastError = Platform::LastSystemError();
    m_log.Error(
        "RetrieveChainTextForContext: Could not convert the given certificate to text (or could not use the context "
        "given).");
    return 0;
  }
  chain.push_back(text);

  CertificateHolder top = holder;
  for (;;) {
    CertificateHolder issuer = authorities.FindIssuer(top);
    std::wstring issuerName;
    GetSubjectDisplayName(issuer, issuerName);
    // A certificate that repeats the previous one's name is taken for the self-signed top, and not added.
    if (issuer && issuerName == name) break;
    const bool bHasText = CertificateToText(issuer, text);
    // Certificates that name each other as issuers form a cycle; treat it like a chain without a next issuer.
    if (!issuer || std::find(chain.begin(), chain.end(), text) != chain.end()) {
      EndChain(top, chain);
      break;
    }
    if (!bHasText) {
      m_lastError = Platform::LastSystemError();
      chain.clear();
      m_log.Error(
          "RetrieveChainTextForContext: Could not convert a certificate in the chain to text (or could not use the "
          "context given).");
      break;
    }
    chain.push_back(text);
    top = std::move(issuer);
    name = std::move(issuerName);
  }
  return chain.size();
}

/// Checks a chain whose topmost certificate has no issuer in the store "CA". Empties it when it is not trusted.
void CertificateManager::EndChain(const CertificateHolder& top, std::vector<std::string>& chain) {
  const auto refuse = [&](const char* format) {
    std::wstring name;
    GetSubjectDisplayName(top, name);
    chain.clear();
    m_lastError = Platform::certificateNotFound;
    m_log.Error(format, name, top.IssuerName());
  };
  if (chain.size() == 1) {
    // The store "ROOT" is not searched for the issuer of the server itself, on purpose.
    std::wstring subject;
    GetSubjectRDN(top, subject);
    if (subject == top.IssuerName()) return;
    refuse(
        "The certificate for server (%s) is not self-signed and its issuer (%s) does not appear to be in the Windows "
        "certificate store. We can't make the connection to the configuration console in a secure fashion, so the "
        "connection will not be made at all.");
    return;
  }
  Platform::CertificateStore roots;
  if (const int error = m_services.m_openStore(L"ROOT", roots); error != 0) {
    m_log.Error("RetrieveChainTextForContext: Could not open the system certificate store (ROOT).. Reason: %s",
                GetLastErrorText(error));
    return;
  }
  if (const CertificateHolder root = roots.FindIssuer(top)) {
    std::string text;
    if (CertificateToText(root, text)) chain.push_back(text);
    return;
  }
  // The name is that of the last certificate in the chain, on purpose, and not the server's.
  refuse(
      "The certificate for server (%s) is not self-signed and an issuer in its chain (%s) does not appear to be in the "
      "Windows certificate store. We can't make the connection to the configuration console in a secure fashion, so "
      "the connection will not be made at all.");
}

bool CertificateManager::WriteCertificateChainFile(const std::wstring& path, const std::string& text) {
  if (text.empty()) return false;
  CertificateHolder holder;
  std::vector<std::string> chain;
  if (GetContextFromCertificateText(text, holder)) RetrieveChainTextForContext(holder, chain);
  if (!chain.empty()) {
    std::string content;
    for (auto position = chain.rbegin(); position != chain.rend(); ++position) content += *position;
    m_lastError = Platform::WriteFileAtomically(path, content);
    if (m_lastError == 0) return true;
  }
  // Nobody has checked what another process wrote there meanwhile.
  const std::filesystem::path file = WindowsAgentCommon::WideToPath(path);
  std::error_code ignored;
  if (!std::filesystem::is_directory(file, ignored)) std::filesystem::remove(file, ignored);
  return false;
}

bool CertificateManager::CertificateToText(const CertificateHolder& holder, std::string& text) const {
  text = holder ? m_services.m_certificateText(holder) : std::string();
  return !text.empty();
}

bool CertificateManager::GetSubjectDisplayName(const CertificateHolder& holder, std::wstring& name) {
  name = holder ? holder.DisplayName() : std::wstring();
  return !name.empty();
}

bool CertificateManager::GetSubjectRDN(const CertificateHolder& holder, std::wstring& name) {
  name = holder ? holder.SubjectName() : std::wstring();
  return !name.empty();
}

}  // namespace VaroCommunicationAPI
