#include "sockets/TlsStream.h"

#include "platform/SocketErrors.h"
#include "sockets/StreamConnector.h"

#include <host/Text.h>

#include <ace/OS_NS_errno.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>

namespace VaroCommunicationAPI {

namespace {

/// What earlier calls of this thread left behind would be taken for the outcome of the next one.
void ForgetErrors() {
  ERR_clear_error();
  ACE_OS::last_error(0);
}

}  // namespace

TlsStream::TlsStream(ACE_SSL_Context& context, std::size_t readBufferBytes) : m_stream(&context) {
  if (readBufferBytes == 0) return;
  SSL* const ssl = m_stream.ssl();
  SSL_set_read_ahead(ssl, 1);
  SSL_set_default_read_buffer_len(ssl, readBufferBytes);
}

TlsStream::~TlsStream() { Close(); }

void TlsStream::SetServerName(const std::wstring& host) {
  std::string name = WindowsAgentCommon::WideToUtf8(host);
  // RFC 6066, section 3: no address, and no dot at the end.
  const bool bIsAddress =
      name.find(':') != std::string::npos || name.find_first_not_of("0123456789.") == std::string::npos;
  if (bIsAddress) return;
  if (name.back() == '.') name.pop_back();
  SSL_ctrl(m_stream.ssl(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data());
}

int TlsStream::Connect(const std::vector<ACE_INET_Addr>& addresses, std::chrono::milliseconds handshakeLimit,
                       const IsInterrupted& isInterrupted) {
  ACE_SOCK_Stream connection;
  if (const int error = ConnectStream(connection, addresses, isInterrupted); error != 0) return error;
  m_stream.set_handle(connection.get_handle());
  const int error = Handshake(handshakeLimit, isInterrupted);
  if (error != 0) Close();
  return error;
}

int TlsStream::Handshake(std::chrono::milliseconds limit, const IsInterrupted& isInterrupted) {
  const Deadline deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    ForgetErrors();
    const int result = SSL_connect(m_stream.ssl());
    if (result == 1) return 0;
    if (const int error = WaitToRetry(result, isInterrupted, deadline); error != 0) return error;
  }
}

Platform::WriteOutcome TlsStream::Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                                        const std::function<void()>& onProgress, bool discards) {
  Platform::WriteOutcome outcome;
  BIO* const network = SSL_get_wbio(m_stream.ssl());
  std::uint64_t moved = BIO_number_written(network);
  while (outcome.m_bytes < length) {
    ForgetErrors();
    // A record a call: of several, the library does not tell how many the system has accepted before an error.
    const std::size_t part = std::min<std::size_t>(length - outcome.m_bytes, SSL3_RT_MAX_PLAIN_LENGTH);
    std::size_t written = 0;
    const int result = SSL_write_ex(m_stream.ssl(), data + outcome.m_bytes, part, &written);
    outcome.m_bytes += written;
    if (const std::uint64_t total = BIO_number_written(network); total != moved) {
      moved = total;
      onProgress();
    }
    if (result == 1) continue;
    outcome.m_error = discards && SSL_want_write(m_stream.ssl())
                          ? WaitForRoom(
                                Handle(), [this] { return PeerState(); }, isInterrupted)
                          : WaitToRetry(result, isInterrupted, std::nullopt);
    if (outcome.m_error != 0) break;
  }
  return outcome;
}

int TlsStream::Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) {
  std::size_t filled = 0;
  while (filled < length) {
    ForgetErrors();
    std::size_t count = 0;
    const int result = SSL_read_ex(m_stream.ssl(), buffer + filled, length - filled, &count);
    filled += count;
    if (result == 1) continue;
    Deadline deadline;
    if (wait) {
      deadline = std::chrono::steady_clock::now() + std::chrono::seconds(wait->sec()) +
                 std::chrono::microseconds(wait->usec());
    }
    if (const int error = WaitToRetry(
            result, [] { return false; }, deadline);
        error != 0)
      return error;
  }
  return 0;
}

int TlsStream::PeerState() {
  // As over plain TCP: what a receiver says is discarded, within bounds, because the end stands behind it.
  constexpr int maxReads = 16;
  char buffer[4096];
  for (int i = 0; i < maxReads; ++i) {
    ForgetErrors();
    std::size_t count = 0;
    const int result = SSL_read_ex(m_stream.ssl(), buffer, sizeof buffer, &count);
    if (result == 1) {
      m_bPeerTalks = true;
      continue;
    }
    const int error = Diagnose(result);
    return error == Platform::ErrorWouldBlock ? 0 : error;
  }
  return 0;
}

void TlsStream::Finish(const IsInterrupted& isInterrupted) {
  for (;;) {
    ForgetErrors();
    const int result = SSL_shutdown(m_stream.ssl());
    if (result >= 0 || WaitToRetry(result, isInterrupted, std::nullopt) != 0) break;
  }
  m_stream.peer().close_writer();
  AwaitDelivery(
      Handle(), [this] { return PeerState(); }, [this] { return m_bPeerTalks; }, isInterrupted);
}

void TlsStream::Close() {
  if (Handle() == ACE_INVALID_HANDLE) return;
  const Platform::BrokenPipeGuard noSignal;
  ForgetErrors();
  SSL_shutdown(m_stream.ssl());
  ERR_clear_error();
  m_stream.peer().close_writer();
  m_stream.peer().close();
  m_stream.set_handle(ACE_INVALID_HANDLE);
}

const char* TlsStream::ProtocolText() const { return SSL_get_version(m_stream.ssl()); }

const char* TlsStream::CipherText() const { return SSL_CIPHER_get_name(SSL_get_current_cipher(m_stream.ssl())); }

std::string TlsStream::PeerCertificatePem() const {
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(m_stream.ssl()), &X509_free);
  const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), &BIO_free);
  if (!certificate || !text || PEM_write_bio_X509(text.get(), certificate.get()) != 1) return {};
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

int TlsStream::WaitToRetry(int result, const IsInterrupted& isInterrupted, Deadline deadline) {
  if (const int error = Diagnose(result); error != Platform::ErrorWouldBlock) return error;
  const Readiness readiness = SSL_want_write(m_stream.ssl()) ? Readiness::Writable : Readiness::Readable;
  return WaitUntilReady(Handle(), readiness, isInterrupted, deadline);
}

/// What an operation of the library ended with that returned `result`.
int TlsStream::Diagnose(int result) {
  m_failure.clear();
  // First of all: the system keeps its number only until the next call.
  ACE_OS::set_errno_to_last_error();
  const int systemError = Platform::LastSocketError();
  switch (SSL_get_error(m_stream.ssl(), result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE: return Platform::ErrorWouldBlock;
    case SSL_ERROR_ZERO_RETURN: return Platform::ErrorPeerClosed;
    case SSL_ERROR_SYSCALL: return systemError != 0 ? systemError : Platform::ErrorPeerClosed;
    default: return ReadLibraryErrors();
  }
}

/// Empties the library's list of errors into `m_failure`. Returns the first, which is the cause.
int TlsStream::ReadLibraryErrors() {
  const unsigned long cause = ERR_peek_error();
  while (const unsigned long code = ERR_get_error()) m_failure.push_back(code);
  // The end of the stream without the library's farewell.
  if (ERR_GET_REASON(cause) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return Platform::ErrorPeerClosed;
  return static_cast<int>(cause);
}

std::string TlsStream::FailureReason() const {
  std::string reason;
  for (const unsigned long code : m_failure) {
    if (!reason.empty()) reason += "; ";
    reason += TlsErrorText(static_cast<int>(code));
  }
  if (const long verification = SSL_get_verify_result(m_stream.ssl());
      !m_failure.empty() && ERR_GET_REASON(m_failure.front()) == SSL_R_CERTIFICATE_VERIFY_FAILED &&
      verification != X509_V_OK) {
    reason += std::string(" (") + X509_verify_cert_error_string(verification) + ')';
  }
  return reason;
}

std::string TlsErrorText(int error) {
  // The system's and the callers' numbers are far below the library's, which carry their origin in the upper bits.
  const auto code = static_cast<unsigned long>(static_cast<unsigned int>(error));
  const char* const reason = ERR_GET_LIB(code) != 0 ? ERR_reason_error_string(code) : nullptr;
  return reason ? reason : Platform::SocketErrorText(error);
}

void ReportTlsConnection(const WindowsAgentCommon::Log& log, const TlsStream& stream) {
  log.Debug("Connected to server using %s (cipher: %s)", stream.ProtocolText(), stream.CipherText());
}

void ReportTlsFailureReason(const WindowsAgentCommon::Log& log, const std::string& reason) {
  if (!reason.empty()) log.Debug("The TLS library's reason: %s", reason);
}

void ReportTlsConnectFailure(const WindowsAgentCommon::Log& log, int error, const std::string& reason) {
  log.Error("Cannot connect to server (%d)", error);
  ReportTlsFailureReason(log, reason);
}

}  // namespace VaroCommunicationAPI
