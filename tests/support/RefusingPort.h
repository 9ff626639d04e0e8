// A loopback port on which connections are refused.
#pragma once

#include <boost/asio.hpp>

#include <cstdint>

namespace sorvex::test {

/// Holds the port without listening on it, so that nobody else listens there while this exists.
class RefusingPort {
 public:
  RefusingPort() : m_socket(m_context, {boost::asio::ip::address_v4::loopback(), 0}) {}

  std::uint16_t Port() const { return m_socket.local_endpoint().port(); }

 private:
  boost::asio::io_context m_context;
  boost::asio::ip::tcp::socket m_socket;
};

}  // namespace sorvex::test
