#include "sockets/SSLTCPRawSocket.h"

#include "platform/Files.h"
#include "sockets/StreamConnector.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <ace/SSL/SSL_Context.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <filesystem>
#include <memory>
#include <system_error>

namespace VaroCommunicationAPI {

namespace {

constexpr std::size_t readBufferBytes = 128 * 1024;

/// Verifies the server's chain against the trusted file, and only when that is not enough against the default locations
/// as well: parsing a system's bundle costs many times a handshake. Returns 1 when the chain is trusted.
int VerifyChain(X509_STORE_CTX* verification, void*) {
  if (X509_verify_cert(verification) == 1) return 1;
  X509_STORE* const store = X509_STORE_CTX_get0_store(verification);
  X509_STORE_set_default_paths(store);
  // One object verifies once.
  const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> second(X509_STORE_CTX_new(),
                                                                               &X509_STORE_CTX_free);
  if (!second || X509_STORE_CTX_init(second.get(), store, X509_STORE_CTX_get0_cert(verification),
                                     X509_STORE_CTX_get0_untrusted(verification)) != 1) {
    return 0;
  }
  X509_VERIFY_PARAM_set1(X509_STORE_CTX_get0_param(second.get()), X509_STORE_CTX_get0_param(verification));
  const int result = X509_verify_cert(second.get());
  X509_STORE_CTX_set_error(verification, X509_STORE_CTX_get_error(second.get()));
  return result == 1 ? 1 : 0;
}

}  // namespace

SSLTCPRawSocket::SSLTCPRawSocket(const SSLProtocolList& protocols, std::chrono::milliseconds handshakeLimit)
    : m_protocols(protocols),
      m_handshakeLimit(handshakeLimit),
      m_strCertificateFile(WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::GetConfigPath() +
                                                          Platform::configSeparator + L"ConfigurationServer.PEM")) {}

void SSLTCPRawSocket::SetCertificateFile(const std::wstring& path) {
  m_strCertificateFile = WindowsAgentCommon::WideToUtf8(path);
}

std::uint32_t SSLTCPRawSocket::GetBytesSent() const { return m_bytesSent; }

std::uint32_t SSLTCPRawSocket::GetBytesReceived() const { return m_bytesReceived; }

void SSLTCPRawSocket::Configure(ACE_SSL_Context& context) const {
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  // Setting the mode has loaded what SSL_CERT_FILE names, which counts as a default location like the others.
  SSL_CTX_set_cert_store(context.context(), X509_STORE_new());
  SSL_CTX_set_cert_verify_callback(context.context(), &VerifyChain, nullptr);
  // Without the file nobody is trusted but whom the default locations name: the handshake then tells.
  // Opening a pipe would wait for its writer.
  const std::filesystem::path file =
      WindowsAgentCommon::WideToPath(WindowsAgentCommon::Utf8ToWide(m_strCertificateFile));
  if (std::error_code ignored; std::filesystem::is_regular_file(file, ignored)) {
    context.load_trusted_ca(m_strCertificateFile.c_str(), nullptr, true);
  }
  context.set_verify_peer(1, 1, 0);
  m_protocols.applyTo(context);
  SSL_CTX_set_session_cache_mode(context.context(), SSL_SESS_CACHE_OFF);
}

int SSLTCPRawSocket::OpenStream(const std::vector<ACE_INET_Addr>& addresses) {
  ACE_SSL_Context context;
  Configure(context);
  auto stream = std::make_shared<TlsStream>(context, readBufferBytes);
  stream->SetServerName(GetHost());
  const int error = stream->Connect(addresses, m_handshakeLimit, [] { return false; });
  // It is logged at Debug only.
  if (m_log.IsEnabled(WindowsAgentCommon::LogLevel::Debug)) m_strFailureReason = stream->FailureReason();
  if (error != 0) return error;
  SendWithoutDelay(stream->Handle());
  m_pStream = std::move(stream);
  return 0;
}

void SSLTCPRawSocket::CloseStream() {
  m_pStream->Close();
  m_pStream.reset();
}

void SSLTCPRawSocket::ReportConnected() { ReportTlsConnection(m_log, *m_pStream); }

void SSLTCPRawSocket::ReportConnectFailure(int error) {
  ReportTlsConnectFailure(m_log, error, m_strFailureReason);
  m_strFailureReason.clear();
}

RawTransfer SSLTCPRawSocket::SendAll(const void* buffer, std::size_t length) {
  const Platform::WriteOutcome outcome = m_pStream->Write(
      static_cast<const char*>(buffer), length, [] { return false; }, [] {});
  return {outcome.m_error == 0 ? static_cast<ssize_t>(length) : -1, outcome.m_error};
}

RawTransfer SSLTCPRawSocket::ReceiveAll(void* buffer, std::size_t length, const ACE_Time_Value* wait) {
  // Unlike a plain read, one through TLS may write.
  const Platform::BrokenPipeGuard noSignal;
  const int error = m_pStream->Read(static_cast<char*>(buffer), length, wait);
  if (error == Platform::ErrorPeerClosed) return {0, error};
  return {error == 0 ? static_cast<ssize_t>(length) : -1, error};
}

void SSLTCPRawSocket::ReportReceiveFailure(int error, std::uint32_t timeoutMs) {
  if (error == Platform::ErrorWaitTimeout) {
    m_log.Error("Error receiving data: Timeout of %u reached.", timeoutMs);
  } else {
    m_log.Error("Error receiving data: %d", error);
  }
}

}  // namespace VaroCommunicationAPI
