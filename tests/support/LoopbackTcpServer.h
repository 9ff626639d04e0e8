// A TCP server on a free loopback port whose behaviour toward each connection is given by the test.
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

/// Returns a loopback port on which nothing listens now.
std::uint16_t UnusedPort();

/// One accepted connection, as a handler sees it. Blocking; `Stop` of the server ends every wait.
class ServerConnection {
 public:
  ServerConnection();
  ~ServerConnection();
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;

  /// Reads until the peer ends the connection; returns what came.
  std::string ReadAll();

  /// Appends at most `limit` bytes that have come to `text`; waits for some. Returns false at the end.
  bool ReadSome(std::string& text, std::size_t limit);

  /// Reads exactly `count` bytes, or less when the peer ends the connection before.
  std::string ReadExactly(std::size_t count);

  void Write(std::string_view text);

  /// Makes each write a segment of its own.
  void SetNoDelay();

  /// Closes with a reset instead of an orderly end.
  void Reset();

  void Close();

  /// Ends every operation on the connection, also later ones. Any thread.
  void Abort();

  /// Makes the end of the connection throw away what was not read, as the end of its process would. Any thread.
  void DiscardAtEnd() { m_bDiscard = true; }

  /// Whether that was asked for; if so, has it prepared.
  bool DiscardsNow();

  /// Runs the operation that was started until its end. Not every system lets another thread end a blocking call, so
  /// there is none.
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

/// Accepts until destroyed; each connection's handler runs in a thread of its own.
class LoopbackTcpServer {
 public:
  /// `index` counts connections from 0. A handler may use the server and its connection.
  using Handler = std::function<void(LoopbackTcpServer& server, ServerConnection& connection, int index)>;

  /// `receiveBufferBytes` limits what the system takes for connections that nobody reads; 0 leaves it alone. Throws
  /// `boost::system::system_error` when the machine lacks the address.
  explicit LoopbackTcpServer(Handler handler, std::uint16_t port = 0, int receiveBufferBytes = 0, bool isIPv6 = false);

  /// Keeps what every connection sends; see `Received`.
  LoopbackTcpServer();

  ~LoopbackTcpServer();
  LoopbackTcpServer(const LoopbackTcpServer&) = delete;
  LoopbackTcpServer& operator=(const LoopbackTcpServer&) = delete;

  /// Closes the listening socket and every connection, and waits for the handlers. Idempotent.
  void Stop();

  /// Makes every connection end as if the server's process had been killed. `Stop` has to follow.
  void Kill();

  bool IsStopped() const { return m_bStopped; }

  /// Waits, as a handler, until the server is stopped: the connection stands and nobody reads.
  void HoldUntilStopped();

  std::uint16_t Port() const { return m_port; }
  int Connections() const { return m_connections; }

  /// Keeps, as a handler, all that the connection sends.
  void KeepAllOf(ServerConnection& connection);

  void AddReceived(std::string_view text);
  std::string Received() const;

  /// Waits until at least `count` bytes were received in all; returns what was.
  std::string WaitForBytes(std::size_t count);

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
