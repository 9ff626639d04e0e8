#include "ConnectProxy.h"

#include <boost/asio.hpp>

#include <array>
#include <utility>

namespace sorvex::test {

namespace {

/// Passes bytes on in both directions until the client ends, or one side fails.
class Relay {
 public:
  Relay(tcp::socket& client, tcp::socket& target) : m_up{client, target, {}}, m_down{target, client, {}} {
    PassOn(m_up);
    PassOn(m_down);
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

 private:
  struct Direction {
    tcp::socket& from;
    tcp::socket& to;
    std::array<char, 65536> buffer;
  };

  void PassOn(Direction& direction) {
    direction.from.async_read_some(
        boost::asio::buffer(direction.buffer), [&](const boost::system::error_code& error, std::size_t count) {
          if (error == boost::asio::error::eof && &direction == &m_down) {
            boost::system::error_code ignored;
            direction.to.shutdown(tcp::socket::shutdown_send, ignored);
          } else if (error) {
            Close();
          } else {
            boost::asio::async_write(direction.to, boost::asio::buffer(direction.buffer.data(), count),
                                     [&](const boost::system::error_code& writeError, std::size_t) {
                                       if (writeError) {
                                         Close();
                                       } else {
                                         PassOn(direction);
                                       }
                                     });
          }
        });
  }

  void Close() {
    boost::system::error_code ignored;
    m_up.from.close(ignored);
    m_up.to.close(ignored);
  }

  Direction m_up;
  Direction m_down;
};

}  // namespace

ConnectProxy::ConnectProxy(std::uint16_t targetPort, std::string answer)
    : m_targetPort(targetPort),
      m_answer(std::move(answer)),
      m_server([this](LoopbackTcpServer&, ServerConnection& connection, int) { Serve(connection); }) {}

std::vector<std::string> ConnectProxy::Requests() const {
  const std::lock_guard lock(m_mutex);
  return m_requests;
}

void ConnectProxy::Serve(ServerConnection& connection) {
  std::string head;
  while (head.find("\r\n\r\n") == std::string::npos) {
    if (!connection.ReadSome(head, 65536)) return;
  }
  {
    const std::lock_guard lock(m_mutex);
    m_requests.push_back(head);
  }
  connection.Write(m_answer);
  if (!m_answer.starts_with("HTTP/1.1 200 ")) {
    connection.Close();
    return;
  }
  tcp::socket target(connection.Socket().get_executor());
  boost::system::error_code error;
  target.connect({boost::asio::ip::address_v4::loopback(), m_targetPort}, error);
  if (error) {
    connection.Close();
    return;
  }
  const Relay relay(connection.Socket(), target);
  connection.RunOperation();
  connection.Close();
}

}  // namespace sorvex::test
