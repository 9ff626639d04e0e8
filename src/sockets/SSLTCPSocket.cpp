#include "sockets/SSLTCPSocket.h"

#include "platform/SocketErrors.h"

#include <host/Base64.h>
#include <host/EnvironmentBlockHelper.h>
#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

#include <ace/SSL/SSL_Context.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace VaroCommunicationAPI {

namespace {

/// Nobody is there to be asked for the password of an encrypted text.
int NoPassword(char*, int, int, void*) { return -1; }

/// Reads one certificate of a PEM text in Base64; null when there is none.
std::shared_ptr<X509> ParseCertificate(const std::string& text) {
  std::vector<std::uint8_t> pem;
  if (!WindowsAgentCommon::DecodeBase64(text, pem) || pem.size() > std::numeric_limits<int>::max()) return nullptr;
  const std::unique_ptr<BIO, int (*)(BIO*)> memory(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                   &BIO_free);
  X509* const certificate = memory ? PEM_read_bio_X509(memory.get(), nullptr, &NoPassword, nullptr) : nullptr;
  ERR_clear_error();
  if (!certificate) return nullptr;
  return {certificate, &X509_free};
}

}  // namespace

SSLTCPSocket::SSLTCPSocket(const SSLProtocolList& protocols, std::shared_ptr<ISocketTime> time,
                           std::chrono::milliseconds handshakeLimit)
    : StreamDestinationSocket(std::move(time)), m_protocols(protocols), m_handshakeLimit(handshakeLimit) {}

SSLTCPSocket::~SSLTCPSocket() { EndLife(); }

void SSLTCPSocket::ReadParameters(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) {
  StreamDestinationSocket::ReadParameters(parameters);
  parameters.GetStringValue("Certificate", m_strCertificate, "");
}

void SSLTCPSocket::AcceptParameters(const std::wstring&, std::uint32_t, std::uint32_t, const std::string&) {
  if (m_strCertificate.empty()) {
    throw WindowsAgentCommon::InitializationException("SSLTCPSocket", "VaroCommunicationAPI::SSLTCPSocket::Open",
                                                      __LINE__,
                                                      "Cannot create TLS socket because no certificate was specified");
  }
}

std::int32_t SSLTCPSocket::Receive(void*, std::uint32_t, std::uint32_t) {
  throw WindowsAgentCommon::OperationNotSupportedException("SSLTCPSocket",
                                                           "VaroCommunicationAPI::SSLTCPSocket::Receive", __LINE__);
}

void SSLTCPSocket::NameLogger() {
  m_log = WindowsAgentCommon::LoggerFactory::GetLogger(
      WindowsAgentCommon::Format("Code.SSLTCPSocket_%p.%s.%d", static_cast<const void*>(this), m_strHost, m_port));
}

bool SSLTCPSocket::PrepareStream() {
  m_pCertificate = ParseCertificate(m_strCertificate);
  if (!m_pCertificate) m_log.Warn("Failed to parse certificate.  No connection attempt will be made.");
  return m_pCertificate != nullptr;
}

void SSLTCPSocket::Configure(ACE_SSL_Context& context) const {
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  // Setting the mode loads what the environment names as trusted: a megabyte a connection, and nothing is verified.
  SSL_CTX_set_cert_store(context.context(), X509_STORE_new());
  context.certificate(m_pCertificate.get());
  m_protocols.applyTo(context);
  SSL_CTX_set_session_cache_mode(context.context(), SSL_SESS_CACHE_OFF);
}

int SSLTCPSocket::OpenStream(const std::vector<ACE_INET_Addr>& addresses) {
  ACE_SSL_Context context;
  Configure(context);
  auto stream = std::make_shared<TlsStream>(context);
  stream->SetServerName(m_strHost);
  const int error = stream->Connect(addresses, m_handshakeLimit, [this] { return MustGiveUp(); });
  if (m_log.IsEnabled(WindowsAgentCommon::LogLevel::Debug)) m_strFailureReason = stream->FailureReason();
  if (error != 0) return error;
  Platform::KeepBacklogSmall(stream->Handle());
  m_pStream = std::move(stream);
  ReportTlsConnection(m_log, *m_pStream);
  return 0;
}

void SSLTCPSocket::CloseStream() {
  m_pStream->Close();
  m_pStream.reset();
}

void SSLTCPSocket::FinishStream() {
  m_pStream->Finish([this] { return MustGiveUp(); });
}

std::optional<std::uint64_t> SSLTCPSocket::StreamProgress() { return Platform::PeerProgress(m_pStream->Handle()); }

Platform::WriteOutcome SSLTCPSocket::WriteStream(const char* data, std::size_t length) {
  const Platform::BrokenPipeGuard noSignal;
  return m_pStream->Write(
      data, length, [this] { return MustGiveUp(); }, [this] { NoteProgress(); }, true);
}

int SSLTCPSocket::StreamPeerState() {
  // A read may have to answer.
  const Platform::BrokenPipeGuard noSignal;
  return m_pStream->PeerState();
}

int SSLTCPSocket::SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) {
  return Platform::SetKeepAlive(m_pStream->Handle(), timeMs, intervalMs);
}

void SSLTCPSocket::ReportConnectFailure(int error) {
  ReportTlsConnectFailure(m_log, error, m_strFailureReason);
  m_strFailureReason.clear();
}

std::string SSLTCPSocket::ErrorText(int error) const { return TlsErrorText(error); }

const char* SSLTCPSocket::KeepAliveWarning() const {
  return "Failed to set keepalive options on the SSLTCP syslog connection; the default OS options will remain in "
         "place. Reason: %s";
}

}  // namespace VaroCommunicationAPI
