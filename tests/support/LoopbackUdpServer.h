// A UDP receiver on a free loopback port.
#pragma once

#include "LoopbackTcpServer.h"

#include <boost/asio.hpp>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sorvex::test {

/// Returns a loopback port on which no datagram is received now.
inline std::uint16_t UnusedUdpPort() {
  boost::asio::io_context context;
  return boost::asio::ip::udp::socket(context, {boost::asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
}

class LoopbackUdpServer {
 public:
  /// Is given each datagram, in a thread of the server's own.
  using Taker = std::function<void(std::string_view datagram)>;

  /// Keeps every datagram; see `Datagrams`.
  LoopbackUdpServer() : LoopbackUdpServer([this](std::string_view datagram) { Keep(datagram); }) {}

  explicit LoopbackUdpServer(Taker taker, std::uint16_t port = 0)
      : m_taker(std::move(taker)), m_socket(m_context, {boost::asio::ip::address_v4::loopback(), port}) {
    boost::system::error_code ignored;
    // As large as the system allows: a burst has to wait for the thread below.
    m_socket.set_option(boost::asio::socket_base::receive_buffer_size(8 * 1024 * 1024), ignored);
    Receive();
    m_thread = std::thread([this] { m_context.run(); });
  }
  ~LoopbackUdpServer() {
    m_context.stop();
    m_thread.join();
  }
  LoopbackUdpServer(const LoopbackUdpServer&) = delete;
  LoopbackUdpServer& operator=(const LoopbackUdpServer&) = delete;

  std::uint16_t Port() const { return m_socket.local_endpoint().port(); }

  std::vector<std::string> Datagrams() const {
    const std::lock_guard lock(m_mutex);
    return m_datagrams;
  }

  /// Waits until at least `count` datagrams have come; returns those that have.
  std::vector<std::string> WaitForDatagrams(std::size_t count) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, patience, [&] { return m_datagrams.size() >= count; });
    return m_datagrams;
  }

 private:
  void Keep(std::string_view datagram) {
    const std::lock_guard lock(m_mutex);
    m_datagrams.emplace_back(datagram);
    m_changed.notify_all();
  }

  void Receive() {
    m_socket.async_receive(boost::asio::buffer(m_buffer),
                           [this](const boost::system::error_code& error, std::size_t size) {
                             if (error == boost::asio::error::operation_aborted) return;
                             if (!error) m_taker({m_buffer.data(), size});
                             Receive();
                           });
  }

  Taker m_taker;
  boost::asio::io_context m_context;
  boost::asio::ip::udp::socket m_socket;
  std::array<char, 65536> m_buffer{};
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_datagrams;
  std::thread m_thread;
};

}  // namespace sorvex::test
