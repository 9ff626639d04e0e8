// A TLS server on a free loopback port whose behaviour toward each connection is given by the test. It speaks through
// Boost.Asio, so that a mistake in the use of another library cannot hide.
#pragma once

#include "LoopbackTcpServer.h"
#include "TlsIdentity.h"

#include <boost/asio/ssl.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace sorvex::test {

struct TlsServerOptions {
  const TlsIdentity* identity = &ServerIdentity();
  int minVersion = TLS1_VERSION;
  int maxVersion = TLS1_3_VERSION;
  bool requestsCertificate = false;  ///< asks the client for a certificate and takes none as well
  bool requiresCertificate = false;  ///< refuses a client that shows none
  int unansweredHandshakes = 0;      ///< closes so many connections, the first ones, inside their handshakes
  std::uint16_t port = 0;
  bool isIPv6 = false;
  int receiveBufferBytes = 0;  ///< limits what the system takes for connections that nobody reads
};

/// One connection after its handshake, as a handler sees it. Blocking; `Stop` of the server ends every wait.
class TlsServerSession {
 public:
  TlsServerSession(ServerConnection& connection, boost::asio::ssl::context& context)
      : m_connection(connection), m_stream(connection.Socket(), context) {}

  bool Handshake() {
    m_stream.async_handshake(boost::asio::ssl::stream_base::server,
                             [this](const boost::system::error_code& error) { m_error = error; });
    m_connection.RunOperation();
    return !m_error;
  }

  /// Appends at most `limit` bytes that have come to `text`; waits for some. Returns false at the end.
  bool ReadSome(std::string& text, std::size_t limit) {
    std::string buffer(limit, '\0');
    std::size_t count = 0;
    m_stream.async_read_some(boost::asio::buffer(buffer),
                             [&](const boost::system::error_code& error, std::size_t size) {
                               m_error = error;
                               count = size;
                             });
    m_connection.RunOperation();
    if (m_connection.DiscardsNow()) return false;
    text.append(buffer, 0, count);
    return !m_error;
  }

  /// Reads until the peer ends the connection; returns what came.
  std::string ReadAll() {
    std::string all;
    while (ReadSome(all, 65536)) {
    }
    return all;
  }

  /// Reads exactly `count` bytes, or less when the peer ends the connection before.
  std::string ReadExactly(std::size_t count) {
    std::string text;
    while (text.size() < count && ReadSome(text, count - text.size())) {
    }
    return text;
  }

  void Write(std::string_view text) {
    boost::asio::async_write(m_stream, boost::asio::buffer(text),
                             [this](const boost::system::error_code& error, std::size_t) { m_error = error; });
    m_connection.RunOperation();
  }

  /// Says farewell as TLS wants it, and waits for the client's or its end.
  void CloseNotify() {
    m_stream.async_shutdown([this](const boost::system::error_code& error) { m_error = error; });
    m_connection.RunOperation();
  }

  /// Closes with a reset instead of an orderly end.
  void Reset() { m_connection.Reset(); }

  /// Closes without farewell.
  void Close() { m_connection.Close(); }

  /// How the last operation ended; `boost::asio::error::eof` after the client's farewell.
  const boost::system::error_code& EndError() const { return m_error; }
  SSL* Native() { return m_stream.native_handle(); }
  tcp::socket& Socket() { return m_connection.Socket(); }
  ServerConnection& Connection() { return m_connection; }

 private:
  ServerConnection& m_connection;
  boost::asio::ssl::stream<tcp::socket&> m_stream;
  boost::system::error_code m_error;
};

/// Accepts and shakes hands until destroyed; each connection's handler runs in a thread of its own.
class LoopbackTlsServer {
 public:
  /// `index` counts connections from 0, those whose handshake failed as well.
  using Handler = std::function<void(LoopbackTlsServer& server, TlsServerSession& session, int index)>;

  explicit LoopbackTlsServer(Handler handler, const TlsServerOptions& options = {})
      : m_handler(std::move(handler)),
        m_unanswered(options.unansweredHandshakes),
        m_context(MakeContext(options)),
        m_server([this](LoopbackTcpServer&, ServerConnection& connection, int index) { Serve(connection, index); },
                 options.port, options.receiveBufferBytes, options.isIPv6) {}

  /// Keeps what every connection sends; see `Received`.
  explicit LoopbackTlsServer(const TlsServerOptions& options = {})
      : LoopbackTlsServer([](LoopbackTlsServer& server, TlsServerSession& session, int) { server.KeepAllOf(session); },
                          options) {}

  void KeepAllOf(TlsServerSession& session) {
    bool more = true;
    while (more) {
      std::string part;
      more = session.ReadSome(part, 65536);
      m_server.AddReceived(part);
    }
  }

  /// Port, received text, stopping.
  LoopbackTcpServer& Tcp() { return m_server; }
  std::uint16_t Port() const { return m_server.Port(); }
  int Connections() const { return m_server.Connections(); }
  void AddReceived(std::string_view text) { m_server.AddReceived(text); }
  std::string Received() const { return m_server.Received(); }
  std::string WaitForBytes(std::size_t count) { return m_server.WaitForBytes(count); }
  void HoldUntilStopped() { m_server.HoldUntilStopped(); }
  void Stop() { m_server.Stop(); }

  int Handshakes() const { return m_handshakes; }
  int FailedHandshakes() const { return m_failedHandshakes; }

  /// Records of application data that have come, and the bytes of all (with what the cipher adds).
  std::uint64_t Records() const { return m_records; }
  std::uint64_t RecordBytes() const { return m_recordBytes; }

 private:
  boost::asio::ssl::context MakeContext(const TlsServerOptions& options) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    SSL_CTX* const native = context.native_handle();
    SSL_CTX_set_security_level(native, 0);
    SSL_CTX_set_min_proto_version(native, options.minVersion);
    SSL_CTX_set_max_proto_version(native, options.maxVersion);
    SSL_CTX_use_certificate(native, options.identity->Certificate());
    SSL_CTX_use_PrivateKey(native, options.identity->Key());
    if (options.requestsCertificate) SSL_CTX_set_verify(native, SSL_VERIFY_PEER, &TakeAny);
    if (options.requiresCertificate) {
      SSL_CTX_set_verify(native, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &TakeAny);
    }
    SSL_CTX_set_msg_callback(native, &CountRecord);
    SSL_CTX_set_msg_callback_arg(native, this);
    return context;
  }

  static int TakeAny(int, X509_STORE_CTX*) { return 1; }

  /// The library shows each record's header: type, version and length.
  static void CountRecord(int isWritten, int, int contentType, const void* data, std::size_t length, SSL*, void* self) {
    const auto* const header = static_cast<const unsigned char*>(data);
    if (isWritten != 0 || contentType != SSL3_RT_HEADER || length < 5 || header[0] != SSL3_RT_APPLICATION_DATA) return;
    auto& server = *static_cast<LoopbackTlsServer*>(self);
    ++server.m_records;
    server.m_recordBytes += static_cast<std::uint64_t>(header[3]) * 256 + header[4];
  }

  void Serve(ServerConnection& connection, int index) {
    if (index < m_unanswered) {
      // Says nothing to the client's first words.
      std::string hello;
      connection.ReadSome(hello, 65536);
      connection.Close();
      return;
    }
    TlsServerSession session(connection, m_context);
    if (!session.Handshake()) {
      ++m_failedHandshakes;
      return;
    }
    ++m_handshakes;
    m_handler(*this, session, index);
  }

  Handler m_handler;
  const int m_unanswered;
  std::atomic<int> m_handshakes{0};
  std::atomic<int> m_failedHandshakes{0};
  std::atomic<std::uint64_t> m_records{0};
  std::atomic<std::uint64_t> m_recordBytes{0};
  boost::asio::ssl::context m_context;
  LoopbackTcpServer m_server;
};

}  // namespace sorvex::test
