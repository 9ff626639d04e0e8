// A loopback port on which a connection neither succeeds nor fails.
#pragma once

#include <boost/asio.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace sorvex::test {

/// Listens without accepting and fills the queue of waiting connections, so that the system drops what else knocks.
class BlackHole {
 public:
  explicit BlackHole(std::uint16_t port = 0) : m_acceptor(m_context) {
    using boost::asio::ip::tcp;
    const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port);
    m_acceptor.open(endpoint.protocol());
    m_acceptor.set_option(tcp::acceptor::reuse_address(true));
    m_acceptor.bind(endpoint);
    m_acceptor.listen(0);
    const tcp::endpoint target(boost::asio::ip::address_v4::loopback(), Port());
    for (int i = 0; i < maxFillers; ++i) {
      auto filler = std::make_unique<tcp::socket>(m_context);
      bool isConnected = false;
      filler->async_connect(target, [&](const boost::system::error_code& error) { isConnected = !error; });
      m_context.restart();
      m_context.run_for(std::chrono::milliseconds(300));
      m_fillers.push_back(std::move(filler));
      if (!isConnected) return;
    }
    throw std::runtime_error("the queue of waiting connections does not fill");
  }

  std::uint16_t Port() const { return m_acceptor.local_endpoint().port(); }

 private:
  static constexpr int maxFillers = 64;

  boost::asio::io_context m_context;
  boost::asio::ip::tcp::acceptor m_acceptor;
  std::vector<std::unique_ptr<boost::asio::ip::tcp::socket>> m_fillers;
};

}  // namespace sorvex::test
