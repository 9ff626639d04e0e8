// Connecting to one of several addresses.
#include "sockets/SocketStream.h"

#include <support/BlackHole.h>
#include <support/LoopbackTcpServer.h>

#include <gtest/gtest.h>

namespace sorvex::test {
namespace {

using namespace VaroCommunicationAPI::Platform;
using VaroCommunicationAPI::StreamUse;

ACE_INET_Addr Loopback(std::uint16_t port) { return ACE_INET_Addr(port, "127.0.0.1"); }

bool Never() { return false; }

SocketError ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses,
                          const VaroCommunicationAPI::IsInterrupted& isInterrupted) {
  return VaroCommunicationAPI::ConnectStream(stream, addresses, StreamUse::Exchange, isInterrupted);
}

TEST(ConnectStream, WithoutAddressFails) {
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {}, &Never), ErrorHostNotFound);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(ConnectStream, TakesTheFirstAddressThatAccepts) {
  LoopbackTcpServer server;
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(UnusedPort()), Loopback(server.Port())}, &Never), ErrorNone);
  stream.close();
}

TEST(ConnectStream, LeavesTheAddressesAfterThatOneAlone) {
  LoopbackTcpServer first;
  LoopbackTcpServer second;
  ACE_SOCK_Stream stream;
  ASSERT_EQ(ConnectStream(stream, {Loopback(first.Port()), Loopback(second.Port())}, &Never), ErrorNone);
  ACE_INET_Addr peer;
  ASSERT_EQ(stream.get_remote_addr(peer), 0);
  EXPECT_EQ(peer.get_port_number(), first.Port());
  stream.close();
}

TEST(ConnectStream, GivesTheErrorOfTheLastAddress) {
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(UnusedPort()), Loopback(UnusedPort())}, &Never), ErrorConnectionRefused);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
}

TEST(WaitUntilReady, EndsAtOnceWhenItsTimeHasPassed) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  ACE_SOCK_Stream stream;
  ASSERT_EQ(ConnectStream(stream, {Loopback(silent.Port())}, &Never), ErrorNone);
  EXPECT_EQ(VaroCommunicationAPI::WaitUntilReady(stream.get_handle(), VaroCommunicationAPI::Readiness::Readable, &Never,
                                                 std::chrono::steady_clock::now() - std::chrono::seconds(1)),
            ErrorWaitTimeout);
  stream.close();
}

TEST(ConnectStream, ThatIsInterruptedDoesNotGoOnToTheNextAddress) {
  const BlackHole hole;
  LoopbackTcpServer server;
  ACE_SOCK_Stream stream;
  EXPECT_EQ(ConnectStream(stream, {Loopback(hole.Port()), Loopback(server.Port())}, [] { return true; }),
            ErrorInterrupted);
  EXPECT_EQ(stream.get_handle(), ACE_INVALID_HANDLE);
  EXPECT_EQ(server.Connections(), 0);
}

}  // namespace
}  // namespace sorvex::test
