#include "sockets/SSLTCPSocket.h"

#include <host/Base64.h>
#include <host/EnvironmentBlockHelper.h>
#include <host/Exceptions.h>

#include <ace/SSL/SSL_Context.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace VaroCommunicationAPI {

namespace {

/// There is nobody to ask for the password of an encrypted text.
int NoPassword(char*, int, int, void*) { return -1; }

/// Reads one certificate from a PEM text in Base64; null if there is none.
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

SSLTCPSocket::SSLTCPSocket(const SSLProtocolList& protocols, SocketServices services,
                           std::chrono::milliseconds handshakeLimit)
    : StreamDestinationSocket(
          {.m_loggerName = "Code.SSLTCPSocket_%p.%s.%d",
           .m_className = "SSLTCPSocket",
           .m_receiveFunction = "VaroCommunicationAPI::SSLTCPSocket::Receive",
           .m_keepAliveWarning = "Failed to set keepalive options on the SSLTCP syslog connection; the default OS "
                                 "options will remain in place. Reason: %s",
           .m_makeStream = [this](const WindowsAgentCommon::Log& log) { return MakeStream(log); },
           .m_readParameters =
               [this](const WindowsAgentCommon::EnvironmentBlockHelper& parameters) { ReadCertificate(parameters); }},
          std::move(services)),
      m_protocols(protocols),
      m_handshakeLimit(handshakeLimit) {}

SSLTCPSocket::~SSLTCPSocket() { EndLife(); }

void SSLTCPSocket::ReadCertificate(const WindowsAgentCommon::EnvironmentBlockHelper& parameters) {
  parameters.GetStringValue("Certificate", m_strCertificate, "");
  if (m_strCertificate.empty()) {
    throw WindowsAgentCommon::InitializationException("SSLTCPSocket", "VaroCommunicationAPI::SSLTCPSocket::Open",
                                                      __LINE__,
                                                      "Cannot create TLS socket because no certificate was specified");
  }
}

std::unique_ptr<ISocketStream> SSLTCPSocket::MakeStream(const WindowsAgentCommon::Log& log) const {
  const std::shared_ptr<X509> certificate = ParseCertificate(m_strCertificate);
  if (!certificate) {
    log.Warn("Failed to parse certificate.  No connection attempt will be made.");
    return nullptr;
  }
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  // Setting the mode loads the trusted certificates that the environment names: a megabyte a connection, although
  // nothing is verified.
  SSL_CTX_set_cert_store(context.context(), X509_STORE_new());
  context.certificate(certificate.get());
  m_protocols.applyTo(context);
  SSL_CTX_set_session_cache_mode(context.context(), SSL_SESS_CACHE_OFF);
  return std::make_unique<TlsStream>(context, StreamUse::Delivery, m_handshakeLimit);
}

}  // namespace VaroCommunicationAPI
