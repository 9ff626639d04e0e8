#include "LoopbackTlsServer.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

#include <utility>

namespace sorvex::test {

namespace {

int TakeAny(int, X509_STORE_CTX*) { return 1; }

}  // namespace

struct TlsServerSession::State {
  boost::asio::ssl::stream<tcp::socket&> stream;
  boost::system::error_code error;
};

TlsServerSession::TlsServerSession(ServerConnection& connection, boost::asio::ssl::context& context)
    : m_connection(connection), m_pState(new State{{connection.Socket(), context}, {}}) {}

TlsServerSession::~TlsServerSession() = default;

bool TlsServerSession::Handshake() {
  m_pState->stream.async_handshake(boost::asio::ssl::stream_base::server,
                                   [this](const boost::system::error_code& error) { m_pState->error = error; });
  m_connection.RunOperation();
  return !m_pState->error;
}

bool TlsServerSession::ReadSome(std::string& text, std::size_t limit) {
  std::string buffer(limit, '\0');
  std::size_t count = 0;
  m_pState->stream.async_read_some(boost::asio::buffer(buffer),
                                   [&](const boost::system::error_code& error, std::size_t size) {
                                     m_pState->error = error;
                                     count = size;
                                   });
  m_connection.RunOperation();
  if (m_connection.DiscardsNow()) return false;
  text.append(buffer, 0, count);
  return !m_pState->error;
}

std::string TlsServerSession::ReadAll() {
  std::string all;
  while (ReadSome(all, 65536)) {
  }
  return all;
}

std::string TlsServerSession::ReadExactly(std::size_t count) {
  std::string text;
  while (text.size() < count && ReadSome(text, count - text.size())) {
  }
  return text;
}

void TlsServerSession::Write(std::string_view text) {
  boost::asio::async_write(m_pState->stream, boost::asio::buffer(text),
                           [this](const boost::system::error_code& error, std::size_t) { m_pState->error = error; });
  m_connection.RunOperation();
}

void TlsServerSession::CloseNotify() {
  m_pState->stream.async_shutdown([this](const boost::system::error_code& error) { m_pState->error = error; });
  m_connection.RunOperation();
}

const boost::system::error_code& TlsServerSession::EndError() const { return m_pState->error; }

SSL* TlsServerSession::Native() { return m_pState->stream.native_handle(); }

LoopbackTlsServer::LoopbackTlsServer(Handler handler, const TlsServerOptions& options)
    : m_handler(std::move(handler)),
      m_unanswered(options.unansweredHandshakes),
      m_pContext(MakeContext(options)),
      m_server([this](LoopbackTcpServer&, ServerConnection& connection, int index) { Serve(connection, index); },
               options.port, options.receiveBufferBytes, options.isIPv6) {}

LoopbackTlsServer::LoopbackTlsServer(const TlsServerOptions& options)
    : LoopbackTlsServer([](LoopbackTlsServer& server, TlsServerSession& session, int) { server.KeepAllOf(session); },
                        options) {}

LoopbackTlsServer::~LoopbackTlsServer() = default;

void LoopbackTlsServer::KeepAllOf(TlsServerSession& session) {
  bool more = true;
  while (more) {
    std::string part;
    more = session.ReadSome(part, 65536);
    m_server.AddReceived(part);
  }
}

std::unique_ptr<boost::asio::ssl::context> LoopbackTlsServer::MakeContext(const TlsServerOptions& options) {
  auto context = std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
  SSL_CTX* const native = context->native_handle();
  SSL_CTX_set_security_level(native, 0);
  SSL_CTX_set_min_proto_version(native, options.minVersion);
  SSL_CTX_set_max_proto_version(native, options.maxVersion);
  SSL_CTX_use_certificate(native, options.identity->Certificate());
  SSL_CTX_use_PrivateKey(native, options.identity->Key());
  if (options.issuer) SSL_CTX_add1_chain_cert(native, options.issuer->Certificate());
  if (options.requestsCertificate) SSL_CTX_set_verify(native, SSL_VERIFY_PEER, &TakeAny);
  if (options.requiresCertificate) {
    SSL_CTX_set_verify(native, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &TakeAny);
  }
  SSL_CTX_set_msg_callback(native, &CountRecord);
  SSL_CTX_set_msg_callback_arg(native, this);
  return context;
}

// The library shows each record's header: type, version and length.
void LoopbackTlsServer::CountRecord(int isWritten, int, int contentType, const void* data, std::size_t length, SSL*,
                                    void* self) {
  const auto* const header = static_cast<const unsigned char*>(data);
  if (isWritten != 0 || contentType != SSL3_RT_HEADER || length < 5 || header[0] != SSL3_RT_APPLICATION_DATA) return;
  auto& server = *static_cast<LoopbackTlsServer*>(self);
  ++server.m_records;
  server.m_recordBytes += static_cast<std::uint64_t>(header[3]) * 256 + header[4];
}

void LoopbackTlsServer::Serve(ServerConnection& connection, int index) {
  if (index < m_unanswered) {
    // Does not answer the client's first message.
    std::string hello;
    connection.ReadSome(hello, 65536);
    connection.Close();
    return;
  }
  TlsServerSession session(connection, *m_pContext);
  if (!session.Handshake()) {
    ++m_failedHandshakes;
    return;
  }
  ++m_handshakes;
  m_handler(*this, session, index);
}

}  // namespace sorvex::test
