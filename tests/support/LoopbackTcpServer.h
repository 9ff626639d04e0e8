// A TCP server on a free loopback port whose behaviour toward each connection is given by the test.
#pragma once

#include "WaitUntil.h"

#include <boost/asio.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::test {

using boost::asio::ip::tcp;

/// Returns a loopback port on which nothing listens now.
inline std::uint16_t UnusedPort() {
  boost::asio::io_context context;
  return tcp::acceptor(context, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

/// One accepted connection, as a handler sees it. Blocking; `Stop` of the server ends every wait.
class ServerConnection {
 public:
  ServerConnection() : m_socket(m_context) {}

  /// Reads until the peer ends the connection; returns what came.
  std::string ReadAll() {
    std::string all;
    while (ReadSome(all, 65536)) {
    }
    return all;
  }

  /// Appends at most `limit` bytes that have come to `text`; waits for some. Returns false at the end.
  bool ReadSome(std::string& text, std::size_t limit) {
    std::string buffer(limit, '\0');
    boost::system::error_code error;
    std::size_t count = 0;
    m_socket.async_read_some(boost::asio::buffer(buffer),
                             [&](const boost::system::error_code& result, std::size_t size) {
                               error = result;
                               count = size;
                             });
    RunOperation();
    if (DiscardsNow()) return false;
    text.append(buffer, 0, count);
    if (error) m_endError = error;
    return !error;
  }

  /// Reads exactly `count` bytes, or less when the peer ends the connection before.
  std::string ReadExactly(std::size_t count) {
    std::string text(count, '\0');
    std::size_t filled = 0;
    boost::asio::async_read(m_socket, boost::asio::buffer(text),
                            [&](const boost::system::error_code&, std::size_t size) { filled = size; });
    RunOperation();
    text.resize(filled);
    return text;
  }

  void Write(std::string_view text) {
    boost::asio::async_write(m_socket, boost::asio::buffer(text), [](const boost::system::error_code&, std::size_t) {});
    RunOperation();
  }

  /// Closes with a reset instead of an orderly end.
  void Reset() {
    boost::system::error_code ignored;
    m_socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
    m_socket.close(ignored);
  }

  void Close() {
    boost::system::error_code ignored;
    m_socket.close(ignored);
  }

  /// Ends every operation on the connection, also later ones. Any thread.
  void Abort() {
    m_bAborted = true;
    boost::asio::post(m_context, [this] {
      boost::system::error_code ignored;
      m_socket.cancel(ignored);
    });
  }

  /// Makes the end of the connection throw away what was not read, as the end of its process would. Any thread.
  void DiscardAtEnd() { m_bDiscard = true; }

  /// Whether that was asked for; if so, has it prepared.
  bool DiscardsNow() {
    if (!m_bDiscard) return false;
    boost::system::error_code ignored;
    m_socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
    return true;
  }

  /// Runs the operation that was started until its end. Not every system lets another thread end a blocking call, so
  /// there is none.
  void RunOperation() {
    boost::system::error_code ignored;
    if (m_bAborted) m_socket.cancel(ignored);
    m_context.restart();
    m_context.run();
  }

  const boost::system::error_code& EndError() const { return m_endError; }
  tcp::socket& Socket() { return m_socket; }

 private:
  boost::asio::io_context m_context;
  tcp::socket m_socket;
  std::atomic<bool> m_bAborted{false};
  std::atomic<bool> m_bDiscard{false};
  boost::system::error_code m_endError;
};

/// Accepts until destroyed; each connection's handler runs in a thread of its own.
class LoopbackTcpServer {
 public:
  /// `index` counts connections from 0. A handler may use the server and its connection.
  using Handler = std::function<void(LoopbackTcpServer& server, ServerConnection& connection, int index)>;

  /// `receiveBufferBytes` limits what the system takes for connections that nobody reads; 0 leaves it alone. Throws
  /// `boost::system::system_error` when the machine lacks the address.
  explicit LoopbackTcpServer(Handler handler, std::uint16_t port = 0, int receiveBufferBytes = 0, bool isIPv6 = false)
      : m_handler(std::move(handler)), m_acceptor(m_context) {
    using boost::asio::ip::address_v4, boost::asio::ip::address_v6;
    const tcp::endpoint endpoint =
        isIPv6 ? tcp::endpoint(address_v6::loopback(), port) : tcp::endpoint(address_v4::loopback(), port);
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    if (receiveBufferBytes > 0) m_acceptor.set_option(tcp::acceptor::receive_buffer_size(receiveBufferBytes));
    m_acceptor.bind(endpoint);
    m_acceptor.listen();
    m_port = m_acceptor.local_endpoint().port();
    Accept();
    m_thread = std::thread([this] { m_context.run(); });
  }

  /// Keeps what every connection sends; see `Received`.
  LoopbackTcpServer()
      : LoopbackTcpServer(
            [](LoopbackTcpServer& server, ServerConnection& connection, int) { server.KeepAllOf(connection); }) {}

  ~LoopbackTcpServer() { Stop(); }
  LoopbackTcpServer(const LoopbackTcpServer&) = delete;
  LoopbackTcpServer& operator=(const LoopbackTcpServer&) = delete;

  /// Closes the listening socket and every connection, and waits for the handlers. Idempotent.
  void Stop() {
    if (m_bStopped.exchange(true)) return;
    boost::asio::post(m_context, [this] {
      boost::system::error_code ignored;
      m_acceptor.close(ignored);
    });
    m_thread.join();
    {
      const std::lock_guard lock(m_mutex);
      for (Worker& worker : m_workers) worker.connection->Abort();
    }
    m_changed.notify_all();
    for (Worker& worker : m_workers) worker.thread.join();
    m_workers.clear();
  }

  /// Makes every connection end as if the server's process had been killed. `Stop` has to follow.
  void Kill() {
    const std::lock_guard lock(m_mutex);
    for (Worker& worker : m_workers) worker.connection->DiscardAtEnd();
  }

  bool IsStopped() const { return m_bStopped; }

  /// Waits, as a handler, until the server is stopped: the connection stands and nobody reads.
  void HoldUntilStopped() {
    while (!m_bStopped) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  std::uint16_t Port() const { return m_port; }
  int Connections() const { return m_connections; }

  /// Keeps, as a handler, all that the connection sends.
  void KeepAllOf(ServerConnection& connection) {
    bool more = true;
    while (more) {
      std::string part;
      more = connection.ReadSome(part, 65536);
      AddReceived(part);
    }
  }

  void AddReceived(std::string_view text) {
    const std::lock_guard lock(m_mutex);
    m_received += text;
    m_changed.notify_all();
  }

  std::string Received() const {
    const std::lock_guard lock(m_mutex);
    return m_received;
  }

  /// Waits until at least `count` bytes were received in all; returns what was.
  std::string WaitForBytes(std::size_t count) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, patience, [&] { return m_received.size() >= count; });
    return m_received;
  }

 private:
  struct Worker {
    std::shared_ptr<ServerConnection> connection;
    std::thread thread;
  };

  void Accept() {
    auto connection = std::make_shared<ServerConnection>();
    m_acceptor.async_accept(connection->Socket(), [this, connection](const boost::system::error_code& error) {
      if (error) return;
      const int index = m_connections++;
      {
        const std::lock_guard lock(m_mutex);
        m_workers.push_back(
            {connection, std::thread([this, connection, index] { m_handler(*this, *connection, index); })});
      }
      Accept();
    });
  }

  Handler m_handler;
  boost::asio::io_context m_context;
  tcp::acceptor m_acceptor;
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
