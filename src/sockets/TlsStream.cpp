#include "sockets/TlsStream.h"

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

/// Otherwise errors left by this thread's earlier calls would be taken for the result of the next.
void ForgetErrors() {
  ERR_clear_error();
  ACE_OS::last_error(0);
}

/// The library's codes hold their origin in the upper bits.
SocketError LibraryError(unsigned long code) {
  return SocketError(static_cast<std::int32_t>(code), ERR_GET_LIB(code) != 0 ? ERR_reason_error_string(code) : nullptr);
}

}  // namespace

TlsStream::TlsStream(ACE_SSL_Context& context, StreamUse use, std::chrono::milliseconds handshakeLimit)
    : m_use(use), m_handshakeLimit(handshakeLimit), m_stream(&context) {
  if (use != StreamUse::Exchange) return;
  constexpr std::size_t readBufferBytes = 128 * 1024;
  SSL* const ssl = m_stream.ssl();
  SSL_set_read_ahead(ssl, 1);
  SSL_set_default_read_buffer_len(ssl, readBufferBytes);
}

TlsStream::~TlsStream() { Close(); }

void TlsStream::SetServerName(const std::wstring& host) {
  std::string name = WindowsAgentCommon::WideToUtf8(host);
  // RFC 6066, section 3: no address, and no trailing dot.
  const bool bIsAddress =
      name.find(':') != std::string::npos || name.find_first_not_of("0123456789.") == std::string::npos;
  if (bIsAddress) return;
  if (name.back() == '.') name.pop_back();
  SSL_ctrl(m_stream.ssl(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data());
}

SocketError TlsStream::Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring& host,
                               const IsInterrupted& isInterrupted) {
  const Platform::BrokenPipeGuard noSignal;
  SetServerName(host);
  ACE_SOCK_Stream connection;
  if (const SocketError error = ConnectStream(connection, addresses, m_use, isInterrupted)) return error;
  m_stream.set_handle(connection.get_handle());
  const SocketError error = Handshake(isInterrupted);
  if (error) Close();
  return error;
}

SocketError TlsStream::Handshake(const IsInterrupted& isInterrupted) {
  const Deadline deadline = std::chrono::steady_clock::now() + m_handshakeLimit;
  for (;;) {
    ForgetErrors();
    const int result = SSL_connect(m_stream.ssl());
    if (result == 1) return {};
    if (const SocketError error = WaitToRetry(result, isInterrupted, deadline)) return error;
  }
}

Platform::WriteOutcome TlsStream::Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                                        const std::function<void()>& onProgress) {
  const Platform::BrokenPipeGuard noSignal;
  Platform::WriteOutcome outcome;
  BIO* const network = SSL_get_wbio(m_stream.ssl());
  std::uint64_t moved = BIO_number_written(network);
  while (outcome.m_bytes < length) {
    ForgetErrors();
    // One record a call: if a call of several fails, the library does not say how many of them the system has accepted.
    const std::size_t part = std::min<std::size_t>(length - outcome.m_bytes, SSL3_RT_MAX_PLAIN_LENGTH);
    std::size_t written = 0;
    const int result = SSL_write_ex(m_stream.ssl(), data + outcome.m_bytes, part, &written);
    outcome.m_bytes += written;
    if (const std::uint64_t total = BIO_number_written(network); total != moved) {
      moved = total;
      onProgress();
    }
    if (result == 1) continue;
    outcome.m_error = WaitToWrite(result, isInterrupted);
    if (outcome.m_error) break;
  }
  return outcome;
}

SocketError TlsStream::Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) {
  // Unlike a plain read, a TLS read may write.
  const Platform::BrokenPipeGuard noSignal;
  const auto goOn = [] { return false; };
  std::size_t filled = 0;
  while (filled < length) {
    ForgetErrors();
    std::size_t count = 0;
    const int result = SSL_read_ex(m_stream.ssl(), buffer + filled, length - filled, &count);
    filled += count;
    if (result == 1) continue;
    if (const SocketError error = WaitToRetry(result, goOn, DeadlineAfter(wait))) return error;
  }
  return {};
}

SocketError TlsStream::PeerState() {
  const Platform::BrokenPipeGuard noSignal;
  // As over plain TCP: what a receiver sends is discarded, within bounds, because the end comes after it.
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
    const SocketError error = Diagnose(result);
    return error == Platform::ErrorWouldBlock ? Platform::ErrorNone : error;
  }
  return {};
}

void TlsStream::Finish(const IsInterrupted& isInterrupted) {
  const Platform::BrokenPipeGuard noSignal;
  for (;;) {
    ForgetErrors();
    const int result = SSL_shutdown(m_stream.ssl());
    if (result >= 0 || WaitToWrite(result, isInterrupted)) break;
  }
  m_stream.peer().close_writer();
  AwaitDelivery(
      *this, [this] { return m_bPeerTalks; }, isInterrupted);
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

ACE_HANDLE TlsStream::Handle() const { return m_stream.get_handle(); }

std::string TlsStream::PeerCertificatePem() const {
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(m_stream.ssl()), &X509_free);
  const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), &BIO_free);
  if (!certificate || !text || PEM_write_bio_X509(text.get(), certificate.get()) != 1) return {};
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

/// Waits, without limit, until the library can go on writing, which returned `result`. In a delivery, a wait for room
/// reads what the peer sends.
SocketError TlsStream::WaitToWrite(int result, const IsInterrupted& isInterrupted) {
  return m_use == StreamUse::Delivery && SSL_want_write(m_stream.ssl())
             ? WaitForRoom(*this, isInterrupted)
             : WaitToRetry(result, isInterrupted, std::nullopt);
}

SocketError TlsStream::WaitToRetry(int result, const IsInterrupted& isInterrupted, Deadline deadline) {
  if (const SocketError error = Diagnose(result); error != Platform::ErrorWouldBlock) return error;
  const Readiness readiness = SSL_want_write(m_stream.ssl()) ? Readiness::Writable : Readiness::Readable;
  return WaitUntilReady(Handle(), readiness, isInterrupted, deadline);
}

/// Returns the error of the library call that returned `result`.
SocketError TlsStream::Diagnose(int result) {
  m_failure.clear();
  // First of all: the system keeps its error number only until the next call.
  ACE_OS::set_errno_to_last_error();
  const SocketError systemError = Platform::LastSocketError();
  switch (SSL_get_error(m_stream.ssl(), result)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE: return Platform::ErrorWouldBlock;
    case SSL_ERROR_ZERO_RETURN: return Platform::ErrorPeerClosed;
    case SSL_ERROR_SYSCALL: return systemError ? systemError : Platform::ErrorPeerClosed;
    default: return ReadLibraryErrors();
  }
}

/// Moves the library's error list into `m_failure`. Returns the first, which is the cause.
SocketError TlsStream::ReadLibraryErrors() {
  const unsigned long cause = ERR_peek_error();
  while (const unsigned long code = ERR_get_error()) m_failure.push_back(LibraryError(code));
  // The stream ended without a close_notify.
  if (ERR_GET_REASON(cause) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return Platform::ErrorPeerClosed;
  return LibraryError(cause);
}

void TlsStream::ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const {
  if (error) {
    log.Error("Cannot connect to server (%d)", error.Number());
    ReportReason(log);
  } else {
    SSL* const ssl = m_stream.ssl();
    log.Debug("Connected to server using %s (cipher: %s)", SSL_get_version(ssl),
              SSL_CIPHER_get_name(SSL_get_current_cipher(ssl)));
  }
}

void TlsStream::ReportReason(const WindowsAgentCommon::Log& log) const {
  if (m_failure.empty() || !log.IsEnabled(WindowsAgentCommon::LogLevel::Debug)) return;
  std::string reason;
  for (const SocketError error : m_failure) {
    if (!reason.empty()) reason += "; ";
    reason += error.Text();
  }
  const auto cause = static_cast<std::uint32_t>(m_failure.front().Number());
  if (const long verification = SSL_get_verify_result(m_stream.ssl());
      ERR_GET_REASON(cause) == SSL_R_CERTIFICATE_VERIFY_FAILED && verification != X509_V_OK) {
    reason += std::string(" (") + X509_verify_cert_error_string(verification) + ')';
  }
  log.Debug("The TLS library's reason: %s", reason);
}

}  // namespace VaroCommunicationAPI
