// A TCP server on a free loopback port whose behaviour toward each connection the test defines.
#pragma once

#include "WaitUntil.h"

#include <boost/asio/ts/netfwd.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace boost::system {
class error_code;
}

namespace sorvex::test {

using boost::asio::ip::tcp;

/// Returns a loopback port on which nothing listens. The system gives it to nobody else while the process lives, but a
/// server of the test may ask for it. For one thread.
std::uint16_t UnusedPort();

/// One accepted connection, as a handler sees it. Blocking; the server's `Stop` ends every wait.
class ServerConnection {
 public:
  ServerConnection();
  ~ServerConnection();
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  /// Reads until the peer ends the connection; returns what it read.
  std::string ReadAll();

  /// Appends at most `limit` received bytes to `text`; waits for some. Returns false at the end.
  bool ReadSome(std::string& text, std::size_t limit);

  /// Reads exactly `count` bytes, or less when the peer ends the connection first.
  std::string ReadExactly(std::size_t count);

  void Write(std::string_view text);

  /// Makes each write a separate segment.
  void SetNoDelay();

  /// Closes with a reset instead of an orderly end.
  void Reset();

  void Close();

  /// Ends every operation on the connection, also later ones. Any thread.
  void Abort();

  /// Makes closing the connection discard unread data, like the end of its process. Any thread.
  void DiscardAtEnd() { m_bDiscard = true; }

  /// Whether that was requested; if so, prepares it.
  bool DiscardsNow();

  /// Runs the started operation until its end. There is no blocking call, which on some systems another thread could
  /// not end.
  void RunOperation();

  /// How reading ended; `boost::asio::error::eof` after an orderly end.
  const boost::system::error_code& EndError() const;
  boost::asio::basic_stream_socket<tcp>& Socket();

 private:
  struct State;

  std::unique_ptr<State> m_pState;
  std::atomic<bool> m_bAborted{false};
  std::atomic<bool> m_bDiscard{false};
};

/// Accepts until destroyed; each connection's handler runs in its own thread.
class LoopbackTcpServer {
 public:
  /// `index` counts connections from 0. A handler may use the server and its connection.
  using Handler = std::function<void(LoopbackTcpServer& server, ServerConnection& connection, int index)>;

  /// `receiveBufferBytes` limits what the system buffers for connections that nobody reads; 0 leaves the default.
  /// Throws `boost::system::system_error` when the machine lacks the address.
  explicit LoopbackTcpServer(Handler handler, std::uint16_t port = 0, int receiveBufferBytes = 0, bool isIPv6 = false);

  /// Keeps what every connection sends; see `Received`.
  LoopbackTcpServer();

  ~LoopbackTcpServer();
  LoopbackTcpServer(const LoopbackTcpServer&) = delete;
  LoopbackTcpServer& operator=(const LoopbackTcpServer&) = delete;

  /// Closes the listening socket and every connection, and waits for the handlers. Idempotent.
  void Stop();

  /// Makes every connection end as if the server's process had been killed. Call `Stop` afterwards.
  void Kill();

  bool IsStopped() const { return m_bStopped; }

  /// As a handler, waits until the server is stopped: the connection stays and nobody reads.
  void HoldUntilStopped();

  std::uint16_t Port() const { return m_port; }
  int Connections() const { return m_connections; }

  /// As a handler, keeps all that the connection sends.
  void KeepAllOf(ServerConnection& connection);

  void AddReceived(std::string_view text);
  std::string Received() const;

  /// Waits until at least `count` bytes were received in all; returns them.
  std::string WaitForBytes(std::size_t count);

  /// Waits until what was received in all ends with `ending`; returns whether it does.
  bool WaitForEnding(std::string_view ending);

 private:
  struct State;
  struct Worker {
    std::shared_ptr<ServerConnection> connection;
    std::thread thread;
  };

  void Accept();

  Handler m_handler;
  std::unique_ptr<State> m_pState;
  std::uint16_t m_port = 0;
  std::atomic<int> m_connections{0};
  std::atomic<bool> m_bStopped{false};
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_received;
  std::list<Worker> m_workers;
  std::thread m_thread;
};

}  // namespace sorvex::test
