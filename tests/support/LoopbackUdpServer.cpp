#include "LoopbackUdpServer.h"

#include <boost/asio.hpp>

#include <array>
#include <utility>

namespace sorvex::test {

using boost::asio::ip::udp;

std::uint16_t UnusedUdpPort() {
  boost::asio::io_context context;
  return udp::socket(context, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

struct LoopbackUdpServer::State {
  explicit State(std::uint16_t port) : socket(context, {boost::asio::ip::address_v4::loopback(), port}) {}

  boost::asio::io_context context;
  udp::socket socket;
  std::array<char, 65536> buffer{};
};

LoopbackUdpServer::LoopbackUdpServer(Taker taker, std::uint16_t port)
    : m_taker(std::move(taker)), m_pState(std::make_unique<State>(port)) {
  boost::system::error_code ignored;
  // As large as the system allows: a burst must wait for the thread below.
  m_pState->socket.set_option(boost::asio::socket_base::receive_buffer_size(8 * 1024 * 1024), ignored);
  Receive();
  m_thread = std::thread([this] { m_pState->context.run(); });
}

LoopbackUdpServer::~LoopbackUdpServer() {
  m_pState->context.stop();
  m_thread.join();
}

std::uint16_t LoopbackUdpServer::Port() const { return m_pState->socket.local_endpoint().port(); }

std::vector<std::string> LoopbackUdpServer::Datagrams() const {
  const std::lock_guard lock(m_mutex);
  return m_datagrams;
}

std::vector<std::string> LoopbackUdpServer::WaitForDatagrams(std::size_t count) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, patience, [&] { return m_datagrams.size() >= count; });
  return m_datagrams;
}

void LoopbackUdpServer::Keep(std::string_view datagram) {
  const std::lock_guard lock(m_mutex);
  m_datagrams.emplace_back(datagram);
  m_changed.notify_all();
}

void LoopbackUdpServer::Receive() {
  std::array<char, 65536>& buffer = m_pState->buffer;
  m_pState->socket.async_receive(boost::asio::buffer(buffer),
                                 [this, &buffer](const boost::system::error_code& error, std::size_t size) {
                                   if (error == boost::asio::error::operation_aborted) return;
                                   if (!error) m_taker({buffer.data(), size});
                                   Receive();
                                 });
}

}  // namespace sorvex::test
