// Connecting to one of several addresses.
#include "sockets/StreamConnector.h"

#include <support/BlackHole.h>
#include <support/LoopbackTcpServer.h>

#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::ConnectStream;

ACE_INET_Addr Loopback(std::uint16_t port) { return ACE_INET_Addr(port, "127.0.0.1"); }

bool Never() { return false; }

TEST(StreamConnector, WithoutAddressFails) {
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {}, &Never), 11001);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(StreamConnector, TakesTheFirstAddressThatAccepts) {
  LoopbackTcpServer server;
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(UnusedPort()), Loopback(server.Port())}, &Never), 0);
  stream.close();
}

TEST(StreamConnector, GivesTheErrorOfTheLastAddress) {
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(UnusedPort()), Loopback(UnusedPort())}, &Never), 10061);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(StreamConnector, ThatIsInterruptedDoesNotGoOnToTheNextAddress) {
  const BlackHole hole;
  LoopbackTcpServer server;
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(hole.Port()), Loopback(server.Port())}, [] { return true; }), 10004);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
  EXPECT_EQ(server.Connections(), 0);
}

}  // namespace
}  // namespace sorvex::test
