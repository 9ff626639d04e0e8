#include "LoopbackTcpServer.h"

#include <boost/asio.hpp>

#include <chrono>
#include <utility>

namespace sorvex::test {

std::uint16_t UnusedPort() {
  static boost::asio::io_context& context = *new boost::asio::io_context;
  static std::list<tcp::socket>& held = *new std::list<tcp::socket>;
  tcp::socket& socket = held.emplace_back(context, tcp::v4());
  socket.set_option(tcp::socket::reuse_address(true));
  socket.bind({boost::asio::ip::address_v4::loopback(), 0});
  return socket.local_endpoint().port();
}

struct ServerConnection::State {
  boost::asio::io_context context;
  tcp::socket socket{context};
  boost::system::error_code endError;
};

ServerConnection::ServerConnection() : m_pState(std::make_unique<State>()) {}

ServerConnection::~ServerConnection() = default;

std::string ServerConnection::ReadAll() {
  std::string all;
  while (ReadSome(all, 65536)) {
  }
  return all;
}

bool ServerConnection::ReadSome(std::string& text, std::size_t limit) {
  std::string buffer(limit, '\0');
  boost::system::error_code error;
  std::size_t count = 0;
  m_pState->socket.async_read_some(boost::asio::buffer(buffer),
                                   [&](const boost::system::error_code& result, std::size_t size) {
                                     error = result;
                                     count = size;
                                   });
  RunOperation();
  if (DiscardsNow()) return false;
  text.append(buffer, 0, count);
  if (error) m_pState->endError = error;
  return !error;
}

std::string ServerConnection::ReadExactly(std::size_t count) {
  std::string text(count, '\0');
  std::size_t filled = 0;
  boost::asio::async_read(m_pState->socket, boost::asio::buffer(text),
                          [&](const boost::system::error_code&, std::size_t size) { filled = size; });
  RunOperation();
  text.resize(filled);
  return text;
}

void ServerConnection::Write(std::string_view text) {
  boost::asio::async_write(m_pState->socket, boost::asio::buffer(text),
                           [](const boost::system::error_code&, std::size_t) {});
  RunOperation();
}

void ServerConnection::SetNoDelay() { m_pState->socket.set_option(tcp::no_delay(true)); }

void ServerConnection::Reset() {
  boost::system::error_code ignored;
  m_pState->socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
  m_pState->socket.close(ignored);
}

void ServerConnection::Close() {
  boost::system::error_code ignored;
  m_pState->socket.close(ignored);
}

void ServerConnection::Abort() {
  m_bAborted = true;
  boost::asio::post(m_pState->context, [this] {
    boost::system::error_code ignored;
    m_pState->socket.cancel(ignored);
  });
}

bool ServerConnection::DiscardsNow() {
  if (!m_bDiscard) return false;
  boost::system::error_code ignored;
  m_pState->socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
  return true;
}

void ServerConnection::RunOperation() {
  boost::system::error_code ignored;
  m_pState->context.restart();
  do {
    // Again after each step: after one part of a record, a read through TLS continues to wait for the next.
    if (m_bAborted) m_pState->socket.cancel(ignored);
  } while (m_pState->context.run_one() > 0);
}

const boost::system::error_code& ServerConnection::EndError() const { return m_pState->endError; }

tcp::socket& ServerConnection::Socket() { return m_pState->socket; }

struct LoopbackTcpServer::State {
  boost::asio::io_context context;
  tcp::acceptor acceptor{context};
};

LoopbackTcpServer::LoopbackTcpServer(Handler handler, std::uint16_t port, int receiveBufferBytes, bool isIPv6)
    : m_handler(std::move(handler)), m_pState(std::make_unique<State>()) {
  using boost::asio::ip::address_v4, boost::asio::ip::address_v6;
  const tcp::endpoint endpoint =
      isIPv6 ? tcp::endpoint(address_v6::loopback(), port) : tcp::endpoint(address_v4::loopback(), port);
  tcp::acceptor& acceptor = m_pState->acceptor;
  acceptor.open(endpoint.protocol());
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  if (receiveBufferBytes > 0) acceptor.set_option(tcp::acceptor::receive_buffer_size(receiveBufferBytes));
  acceptor.bind(endpoint);
  acceptor.listen();
  m_port = acceptor.local_endpoint().port();
  Accept();
  m_thread = std::thread([this] { m_pState->context.run(); });
}

LoopbackTcpServer::LoopbackTcpServer()
    : LoopbackTcpServer(
          [](LoopbackTcpServer& server, ServerConnection& connection, int) { server.KeepAllOf(connection); }) {}

LoopbackTcpServer::~LoopbackTcpServer() { Stop(); }

void LoopbackTcpServer::Stop() {
  if (m_bStopped.exchange(true)) return;
  boost::asio::post(m_pState->context, [this] {
    boost::system::error_code ignored;
    m_pState->acceptor.close(ignored);
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

void LoopbackTcpServer::Kill() {
  const std::lock_guard lock(m_mutex);
  for (Worker& worker : m_workers) worker.connection->DiscardAtEnd();
}

void LoopbackTcpServer::HoldUntilStopped() {
  while (!m_bStopped) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void LoopbackTcpServer::KeepAllOf(ServerConnection& connection) {
  bool more = true;
  while (more) {
    std::string part;
    more = connection.ReadSome(part, 65536);
    AddReceived(part);
  }
}

void LoopbackTcpServer::AddReceived(std::string_view text) {
  const std::lock_guard lock(m_mutex);
  m_received += text;
  m_changed.notify_all();
}

std::string LoopbackTcpServer::Received() const {
  const std::lock_guard lock(m_mutex);
  return m_received;
}

std::string LoopbackTcpServer::WaitForBytes(std::size_t count) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, patience, [&] { return m_received.size() >= count; });
  return m_received;
}

bool LoopbackTcpServer::WaitForEnding(std::string_view ending) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, patience, [&] { return m_received.ends_with(ending); });
}

void LoopbackTcpServer::Accept() {
  auto connection = std::make_shared<ServerConnection>();
  m_pState->acceptor.async_accept(connection->Socket(), [this, connection](const boost::system::error_code& error) {
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

}  // namespace sorvex::test
