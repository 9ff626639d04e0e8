#include "sockets/SSLTCPRawSocket.h"

#include "platform/Files.h"

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

/// Verifies the server's chain against the trusted file, and only if that fails against the default locations as well:
/// parsing a system's bundle takes many times as long as a handshake. Returns 1 if the chain is trusted.
int VerifyChain(X509_STORE_CTX* verification, void*) {
  if (X509_verify_cert(verification) == 1) return 1;
  X509_STORE* const store = X509_STORE_CTX_get0_store(verification);
  X509_STORE_set_default_paths(store);
  // An object can verify only once.
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
    : RawSocket({.m_loggerName = "Code.SSLTCPRawSocket_%p.%s.%d",
                 .m_noTimeout = 0xFFFFFFFF,
                 .m_timeoutError = "Error receiving data: Timeout of %u reached."},
                [this](const WindowsAgentCommon::Log&) {
                  ACE_SSL_Context context;
                  Configure(context);
                  return std::make_unique<TlsStream>(context, StreamUse::Exchange, m_handshakeLimit);
                }),
      m_protocols(protocols),
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
  // Setting the mode has loaded the file that SSL_CERT_FILE names, which is one of the default locations.
  SSL_CTX_set_cert_store(context.context(), X509_STORE_new());
  SSL_CTX_set_cert_verify_callback(context.context(), &VerifyChain, nullptr);
  // Without the file only the default locations are trusted, and the handshake reports that. Opening a pipe would wait
  // for its writer.
  const std::filesystem::path file =
      WindowsAgentCommon::WideToPath(WindowsAgentCommon::Utf8ToWide(m_strCertificateFile));
  if (std::error_code ignored; std::filesystem::is_regular_file(file, ignored)) {
    context.load_trusted_ca(m_strCertificateFile.c_str(), nullptr, true);
  }
  context.set_verify_peer(1, 1, 0);
  m_protocols.applyTo(context);
  SSL_CTX_set_session_cache_mode(context.context(), SSL_SESS_CACHE_OFF);
}

}  // namespace VaroCommunicationAPI
