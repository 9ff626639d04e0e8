// A TLS server on a free loopback port whose behaviour toward each connection the test defines. It uses Boost.Asio, so
// that a mistake in the use of another library cannot hide.
#pragma once

#include "LoopbackTcpServer.h"
#include "TlsIdentity.h"

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace boost::asio::ssl {
class context;
}

namespace sorvex::test {

struct TlsServerOptions {
  const TlsIdentity* identity = &ServerIdentity();
  const TlsIdentity* issuer = nullptr;  ///< is presented too
  int minVersion = TLS1_VERSION;
  int maxVersion = TLS1_3_VERSION;
  bool requestsCertificate = false;  ///< asks the client for a certificate and also accepts none
  bool requiresCertificate = false;  ///< refuses a client without a certificate
  int unansweredHandshakes = 0;      ///< closes this many first connections inside their handshakes
  std::uint16_t port = 0;
  bool isIPv6 = false;
  int receiveBufferBytes = 0;  ///< limits what the system buffers for connections that nobody reads
};

/// One connection after its handshake, as a handler sees it. Blocking; the server's `Stop` ends every wait.
class TlsServerSession {
 public:
  TlsServerSession(ServerConnection& connection, boost::asio::ssl::context& context);
  ~TlsServerSession();
  TlsServerSession(const TlsServerSession&) = delete;
  TlsServerSession& operator=(const TlsServerSession&) = delete;

  bool Handshake();

  /// Appends at most `limit` received bytes to `text`; waits for some. Returns false at the end.
  bool ReadSome(std::string& text, std::size_t limit);

  /// Reads until the peer ends the connection; returns what it read.
  std::string ReadAll();

  /// Reads exactly `count` bytes, or less when the peer ends the connection first.
  std::string ReadExactly(std::size_t count);

  void Write(std::string_view text);

  /// Makes each write a separate segment.
  void SetNoDelay() { m_connection.SetNoDelay(); }

  /// Sends a TLS close_notify and waits for the client's, or its end.
  void CloseNotify();

  /// Closes with a reset instead of an orderly end.
  void Reset() { m_connection.Reset(); }

  /// Closes without close_notify.
  void Close() { m_connection.Close(); }

  /// How the last operation ended; `boost::asio::error::eof` after the client's close_notify.
  const boost::system::error_code& EndError() const;
  SSL* Native();
  boost::asio::basic_stream_socket<tcp>& Socket() { return m_connection.Socket(); }
  ServerConnection& Connection() { return m_connection; }

 private:
  struct State;

  ServerConnection& m_connection;
  std::unique_ptr<State> m_pState;
};

/// Accepts and does handshakes until destroyed; each connection's handler runs in its own thread.
class LoopbackTlsServer {
 public:
  /// `index` counts connections from 0, including those whose handshake failed.
  using Handler = std::function<void(LoopbackTlsServer& server, TlsServerSession& session, int index)>;

  explicit LoopbackTlsServer(Handler handler, const TlsServerOptions& options = {});

  /// Keeps what every connection sends; see `Received`.
  explicit LoopbackTlsServer(const TlsServerOptions& options = {});
  ~LoopbackTlsServer();

  void KeepAllOf(TlsServerSession& session);

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

  /// Received records of application data, and their total bytes (with what the cipher adds).
  std::uint64_t Records() const { return m_records; }
  std::uint64_t RecordBytes() const { return m_recordBytes; }

 private:
  std::unique_ptr<boost::asio::ssl::context> MakeContext(const TlsServerOptions& options);
  static void CountRecord(int isWritten, int, int contentType, const void* data, std::size_t length, SSL*, void* self);
  void Serve(ServerConnection& connection, int index);

  Handler m_handler;
  const int m_unanswered;
  std::atomic<int> m_handshakes{0};
  std::atomic<int> m_failedHandshakes{0};
  std::atomic<std::uint64_t> m_records{0};
  std::atomic<std::uint64_t> m_recordBytes{0};
  std::unique_ptr<boost::asio::ssl::context> m_pContext;
  LoopbackTcpServer m_server;
};

}  // namespace sorvex::test
