// Raw sockets send each write at once, as the system tells of their handles.
#include "Transports.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <vector>

namespace sorvex::test {
namespace {

/// TCP_NODELAY of each socket of this process that is connected to the port.
std::vector<int> NoDelayOfConnectionsTo(std::uint16_t port) {
  std::vector<int> options;
  for (int handle = 0; handle < 1024; ++handle) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    if (getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || ntohs(peer.sin_port) != port) continue;
    int option = -1;
    size = sizeof option;
    EXPECT_EQ(getsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &option, &size), 0);
    options.push_back(option);
  }
  return options;
}

TEST(NoDelay, OfATcpRawSocket) {
  LoopbackTcpServer server;
  VaroCommunicationAPI::TCPRawSocket socket;
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_EQ(NoDelayOfConnectionsTo(server.Port()), std::vector<int>{1});
}

TEST(NoDelay, OfATlsRawSocket) {
  LoopbackTlsServer server;
  TrustingSSLTCPRawSocket socket;
  socket.Open(L"127.0.0.1", server.Port());
  ASSERT_TRUE(socket.IsConnected());
  EXPECT_EQ(NoDelayOfConnectionsTo(server.Port()), std::vector<int>{1});
}

}  // namespace
}  // namespace sorvex::test
