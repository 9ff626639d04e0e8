// Two ends of one TCP connection on this machine.
#pragma once

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/os_include/netinet/os_tcp.h>
#include <ace/os_include/sys/os_socket.h>

#include <stdexcept>

namespace sorvex::test {

class LoopbackConnection {
 public:
  LoopbackConnection() {
    ACE_SOCK_Acceptor acceptor;
    ACE_INET_Addr address;
    if (acceptor.open(ACE_INET_Addr(static_cast<unsigned short>(0), "127.0.0.1")) == -1 ||
        acceptor.get_local_addr(address) == -1 || ACE_SOCK_Connector().connect(m_near, address) == -1 ||
        acceptor.accept(m_far) == -1) {
      throw std::runtime_error("no loopback connection could be made");
    }
    acceptor.close();
  }
  ~LoopbackConnection() {
    m_near.close();
    m_far.close();
  }
  LoopbackConnection(const LoopbackConnection&) = delete;
  LoopbackConnection& operator=(const LoopbackConnection&) = delete;

  ACE_SOCK_Stream& Near() { return m_near; }
  ACE_SOCK_Stream& Far() { return m_far; }

  /// Ends the far end like a crashed peer: with a reset.
  void ResetFar() {
    linger lingering{};
    lingering.l_onoff = 1;
    m_far.set_option(SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering);
    m_far.close();
  }

 private:
  ACE_SOCK_Stream m_near;
  ACE_SOCK_Stream m_far;
};

}  // namespace sorvex::test
