#include <Server.h>

#include <HttpsConversation.h>
#include <Identity.h>
#include <Log.h>
#include <Text.h>
#include <WireConversation.h>
#include <platform/Platform.h>

#include <boost/asio/ip/v6_only.hpp>

#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

namespace sorvex::configserver {
namespace {

using boost::asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

/// The files from the command line, or the folder's own, made on the first start.
Identity FindIdentity(const Options& options) {
  if (!options.certificate.empty()) return ReadIdentity(options.certificate, options.key);
  const std::filesystem::path certificate = options.data / "certificate.pem";
  const std::filesystem::path key = options.data / "key.pem";
  // If one is missing, a new certificate would be refused by agents that trust the old one.
  if (!std::filesystem::exists(certificate) && !std::filesystem::exists(key)) {
    MakeIdentity(certificate, key);
    WriteLog("made the certificate " + PathToUtf8(certificate));
  } else if (FinishIdentity(certificate, key)) {
    WriteLog("finished the key " + PathToUtf8(key) + " of an interrupted first start");
  }
  return ReadIdentity(certificate, key);
}

boost::asio::ssl::context MakeTlsContext(const Options& options) {
  boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
  SSL_CTX* const native = context.native_handle();
  SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
  // No agent resumes a session.
  SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(native, 0);
  SSL_CTX_set_options(native, SSL_OP_NO_TICKET | SSL_OP_NO_RENEGOTIATION);
  // Nobody is there to type a password.
  context.set_password_callback([](std::size_t, boost::asio::ssl::context::password_purpose) { return std::string(); });

  Identity identity = FindIdentity(options);
  error_code error;
  context.use_certificate_chain(boost::asio::buffer(identity.certificate), error);
  if (!error) context.use_private_key(boost::asio::buffer(identity.key), boost::asio::ssl::context::pem, error);
  OPENSSL_cleanse(identity.key.data(), identity.key.size());
  if (error || SSL_CTX_check_private_key(native) != 1) {
    throw std::runtime_error("the certificate and its key cannot be used" + (error ? ": " + error.message() : ""));
  }
  return context;
}

std::string PublicKeyOf(boost::asio::ssl::context& context) {
  unsigned char* encoded = nullptr;
  const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(SSL_CTX_get0_certificate(context.native_handle())), &encoded);
  if (size < 0) throw std::runtime_error("the certificate has no public key");
  std::string key(reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size));
  OPENSSL_free(encoded);
  return key;
}

template <class Spoken>
std::unique_ptr<Conversation> Make(Connection& connection, Service& service) {
  return std::make_unique<Spoken>(connection, service);
}

}  // namespace

Listener::Listener(boost::asio::io_context& context, const tcp::endpoint& endpoint, Service& service,
                   std::size_t maxConnections, MakeConversation makeConversation)
    : m_service(service),
      m_maxConnections(maxConnections),
      m_makeConversation(makeConversation),
      m_acceptor(context, endpoint.protocol()),
      m_pause(context) {
  if (endpoint.address().is_v6()) m_acceptor.set_option(boost::asio::ip::v6_only(false));
  if (MayReuseAddress()) m_acceptor.set_option(tcp::acceptor::reuse_address(true));
  m_acceptor.bind(endpoint);
  m_acceptor.listen();
}

std::string Listener::Place() const {
  const tcp::endpoint endpoint = m_acceptor.local_endpoint();
  return endpoint.address().to_string() + " port " + std::to_string(endpoint.port());
}

void Listener::Accept() {
  m_acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
    // Without a free descriptor the connection stays pending, and the acceptor would report it again at once.
    if (error) return AcceptLater();
    if (m_service.connections < m_maxConnections) {
      const auto connection = std::make_shared<Connection>(std::move(socket), m_service);
      connection->Start(m_makeConversation(*connection, m_service));
    } else {
      WriteLog("closed a connection: there are " + std::to_string(m_service.connections));
    }
    Accept();
  });
}

void Listener::AcceptLater() {
  m_pause.expires_after(200ms);
  m_pause.async_wait([this](const error_code& error) {
    if (!error) Accept();
  });
}

Server::Server(const Options& options)
    : m_folder(options.data),
      m_tls(MakeTlsContext(options)),
      m_service{.folder = m_folder,
                .tls = m_tls,
                .serverKey = PublicKeyOf(m_tls),
                .wireVersion = options.wireVersion,
                .maxAgents = options.maxAgents,
                .idleTimeout = options.idleTimeout,
                .requestTimeout = options.requestTimeout,
                .fault = options.fault},
      m_context(1),
      m_endSignals(m_context) {
  const auto listen = [&](std::optional<Listener>& listener, const std::optional<std::uint16_t>& port,
                          Listener::MakeConversation make) {
    if (!port) return;
    try {
      const tcp::endpoint endpoint(boost::asio::ip::make_address(options.listen), *port);
      listener.emplace(m_context, endpoint, m_service, options.maxConnections, make);
    } catch (const boost::system::system_error& error) {
      throw std::runtime_error("cannot listen on " + options.listen + " port " + std::to_string(*port) + ": " +
                               error.code().message());
    }
  };
  listen(m_wire, options.wirePort, &Make<WireConversation>);
  listen(m_https, options.httpsPort, &Make<HttpsConversation>);
  RaiseDescriptorLimit();
  for (const int signal : EndSignals()) m_endSignals.add(signal);
}

void Server::Run() {
  m_endSignals.async_wait([this](const error_code& error, int) {
    if (error) return;
    WriteLog("stopped");
    m_context.stop();
  });
  if (m_wire) WriteLog("listening on " + m_wire->Place());
  if (m_https) WriteLog("listening for HTTPS on " + m_https->Place());
  if (!m_folder.HasTokens()) WriteLog("warning: tokens.txt has no token, so every agent is accepted");
  if (m_wire) m_wire->Accept();
  if (m_https) m_https->Accept();
  while (!m_context.stopped()) {
    try {
      m_context.run();
    } catch (const std::exception& error) {
      WriteLog(std::string("error: ") + error.what());
    }
  }
}

}  // namespace sorvex::configserver
