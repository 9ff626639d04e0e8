// The TCP destination socket against real peers on the loopback.
#include "platform/SocketErrors.h"
#include "sockets/TCPSocket.h"

#include <support/BlackHole.h>
#include <support/LoopbackTcpServer.h>
#include <support/RecordingLogger.h>

#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>
#include <utility>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::Contains;
using testing::ElementsAre;
using VaroCommunicationAPI::TCPSocket;

WindowsAgentCommon::ParameterBlock Target(std::uint16_t port, bool isQueued) {
  return {{"TargetPort", std::to_string(port)}, {"Socket.BlockingSendStrategy", isQueued ? "false" : "true"}};
}

/// A connection on which nothing was written for more than a second is looked at before it is written to.
constexpr auto moreThanTrustedSilence = 1050ms;

class TCPDestination : public testing::Test {
 protected:
  ~TCPDestination() override { socket.Shutdown(); }

  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  RecordingLogger log;
  TCPSocket socket;
};

TEST_F(TCPDestination, DeliversPayloadsInOrder) {
  LoopbackTcpServer server;
  socket.Initialize(Target(server.Port(), false));
  ASSERT_TRUE(socket.IsConnected());
  EXPECT_EQ(Send("one"), 4);
  EXPECT_EQ(Send("two"), 4);
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(TCPDestination, DeliversQueuedPayloadsInOrder) {
  LoopbackTcpServer server;
  socket.Initialize(Target(server.Port(), true));
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    const std::string payload = "payload " + std::to_string(i);
    ASSERT_EQ(Send(payload), static_cast<std::int32_t>(payload.size() + 1));
    expected += payload + '\n';
  }
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(expected.size()), expected);
  EXPECT_EQ(socket.GetMessagesSent(), 20000u);
}

TEST_F(TCPDestination, LoggerIsNamedAfterObjectHostAndPort) {
  LoopbackTcpServer server;
  socket.Initialize(Target(server.Port(), true));
  socket.Shutdown();
  ASSERT_FALSE(log->Records().empty());
  EXPECT_EQ(
      log->Records().front().logger,
      WindowsAgentCommon::Format("Code.TCPSocket_%p.127.0.0.1.%d", static_cast<const void*>(&socket), server.Port()));
}

TEST_F(TCPDestination, ARefusedConnectionIsWarnedOfOnce) {
  socket.Initialize(Target(UnusedPort(), false));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_THAT(log->Lines(), ElementsAre("Warn The target server actively refused the TCP syslog connection."));
}

TEST_F(TCPDestination, ABlockingSendWithoutServerFailsAfterAboutASecond) {
  socket.Initialize(Target(UnusedPort(), false));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Send("x"), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(TCPDestination, AReconnectThatIsRefusedTellsTheReason) {
  socket.Initialize(Target(UnusedPort(), false));
  log->Clear();
  Send("x");
  EXPECT_THAT(log->Lines(),
              ElementsAre("Debug Socket isn't connected; calling reconnect...",
                          "Warn The target server actively refused the TCP syslog connection.",
                          "Warn Reconnect failed; will try again later. Reason: " + SocketErrorText(10061)));
}

TEST_F(TCPDestination, ReceiveThrows) {
  char byte = 0;
  try {
    socket.Receive(&byte, 1, 0);
    FAIL() << "nothing was thrown";
  } catch (const WindowsAgentCommon::OperationNotSupportedException& exception) {
    EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::TCPSocket::Receive");
    EXPECT_EQ(exception.GetSourceFile(), "TCPSocket");
  }
}

TEST_F(TCPDestination, APeerThatClosesIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosed{false};
  LoopbackTcpServer server([&](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    self.AddReceived(connection.ReadExactly(4));
    connection.Close();
    isClosed = true;
  });
  socket.Initialize(Target(server.Port(), true));
  Send("one");
  ASSERT_EQ(server.WaitForBytes(4), "one\n");
  ASSERT_TRUE(WaitUntil([&] { return isClosed.load(); }));
  std::this_thread::sleep_for(moreThanTrustedSilence);
  Send("two");
  ASSERT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  Send("six");
  EXPECT_EQ(server.WaitForBytes(12), "one\ntwo\nsix\n");
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_THAT(log->Lines(), Contains("Warn Socket connection problem (error = '" + SocketErrorText(ErrorPeerClosed) +
                                     "'). Trying to reconnect..."));
}

TEST_F(TCPDestination, APeerThatResetsWhileWeWriteEndsNoProcess) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    connection.ReadExactly(1);
    connection.Reset();
  });
  socket.Initialize(Target(server.Port(), true));
  const std::string payload(20000, 'x');
  for (int i = 0; i < 300; ++i) Send(payload);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 300u);
  EXPECT_EQ(socket.GetMessagesSent() + socket.GetMessagesDropped(), 300u);
  EXPECT_EQ(server.Connections(), 2);
}

TEST_F(TCPDestination, APeerThatTalksIsListenedToForItsEndAlone) {
  std::atomic<bool> isClosed{false};
  LoopbackTcpServer server([&](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    connection.Write(std::string(10000, '?'));
    self.AddReceived(connection.ReadExactly(4));
    connection.Close();
    isClosed = true;
  });
  socket.Initialize(Target(server.Port(), true));
  Send("one");
  ASSERT_EQ(server.WaitForBytes(4), "one\n");
  ASSERT_TRUE(WaitUntil([&] { return isClosed.load(); }));
  std::this_thread::sleep_for(moreThanTrustedSilence);
  Send("two");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(TCPDestination, ShutdownGivesUpADestinationThatNeverReadsWithinTwoSeconds) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); }, 0, 4096);
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  socket.Initialize(parameters);
  const std::string payload(30000, 'x');
  for (int i = 0; i < 1000; ++i) ASSERT_GT(Send(payload), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_GT(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(socket.GetMessagesSent() + socket.GetMessagesDropped(), 1000u);
  EXPECT_EQ(socket.GetBytesDropped(), socket.GetMessagesDropped() * 30000u);
  EXPECT_THAT(log->Lines(), Contains("Info Thread exiting"));
}

TEST_F(TCPDestination, ShutdownInterruptsAReconnectIntoABlackHole) {
  const std::uint16_t port = UnusedPort();
  socket.Initialize(Target(port, true));
  const BlackHole blackHole(port);
  Send("hello");
  ASSERT_TRUE(WaitUntil([&] { return log->Count("Debug Socket isn't connected; calling reconnect...") == 1; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(TCPDestination, ShutdownInterruptsTheFirstConnect) {
  const BlackHole blackHole;
  std::thread opener([&] { socket.Initialize(Target(blackHole.Port(), true)); });
  ASSERT_TRUE(WaitUntil([&] { return socket.GetLastConnectAttemptTime() != ACE_Time_Value::zero; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  opener.join();
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("hello"), -1);
}

TEST_F(TCPDestination, ShutdownInterruptsABlockingSendToAReceiverThatNeverReads) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); }, 0, 4096);
  socket.Initialize(Target(server.Port(), false));
  std::atomic<bool> isBlocked{true};
  std::thread sender([&] {
    const std::string payload(1'000'000, 'x');
    while (Send(payload) > 0) {
    }
    isBlocked = false;
  });
  // Nothing more is sent for a while: the sender waits for room.
  std::uint32_t sent = 0;
  ASSERT_TRUE(WaitUntil([&] {
    std::this_thread::sleep_for(200ms);
    return std::exchange(sent, socket.GetMessagesSubmitted()) == socket.GetMessagesSubmitted() && sent > 0;
  }));
  EXPECT_TRUE(isBlocked);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  sender.join();
}

TEST_F(TCPDestination, ShutdownWaitsForASlowReceiverThatTakesData) {
  LoopbackTcpServer server(
      [](LoopbackTcpServer& self, ServerConnection& connection, int) {
        std::string part;
        while (connection.ReadSome(part, 200000)) {
          self.AddReceived(part);
          part.clear();
          std::this_thread::sleep_for(20ms);
        }
      },
      0, 65536);
  socket.Initialize(Target(server.Port(), true));
  const std::string payload(30000, 'x');
  for (int i = 0; i < 200; ++i) ASSERT_GT(Send(payload), 0);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 200u);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(server.WaitForBytes(200u * 30001u).size(), 200u * 30001u);
}

TEST_F(TCPDestination, KeepAliveIsSetOnTheConnection) {
  LoopbackTcpServer server;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  socket.Initialize(parameters);
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), testing::IsEmpty());
}

/// A TCP socket whose system refuses keep-alive.
class TCPSocketWithoutKeepAlive : public TCPSocket {
 protected:
  int SetStreamKeepAlive(std::uint32_t, std::uint32_t) override { return ToSystemError(10042); }
};

TEST_F(TCPDestination, KeepAliveThatCannotBeSetIsWarnedOf) {
  LoopbackTcpServer server;
  TCPSocketWithoutKeepAlive destination;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  destination.Initialize(parameters);
  EXPECT_TRUE(destination.IsConnected());
  EXPECT_THAT(log->Lines(),
              ElementsAre("Warn Failed to set keepalive options on the TCP syslog connection; the default OS "
                          "options will remain in place. Reason: " +
                          SocketErrorText(10042)));
}

TEST_F(TCPDestination, TheQueueHasItsMarksFromTheStart) {
  EXPECT_EQ(socket.msg_queue()->low_water_mark(), 999500u);
  EXPECT_EQ(socket.msg_queue()->high_water_mark(), 1000000u);
}

TEST_F(TCPDestination, TheMarksOfTheQueueAreTakenFromTheParameters) {
  LoopbackTcpServer server;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), true);
  parameters.emplace("Socket.QueueLowWaterMark", "1000");
  parameters.emplace("Socket.QueueHighWaterMark", "2000");
  socket.Initialize(parameters);
  EXPECT_EQ(socket.msg_queue()->low_water_mark(), 1000u);
  EXPECT_EQ(socket.msg_queue()->high_water_mark(), 2000u);
}

TEST_F(TCPDestination, AnUnknownHostCanBeOpenedAndFailsToConnect) {
  socket.Initialize({{"TargetAddress", "no-such-host.invalid"}, {"Socket.BlockingSendStrategy", "true"}});
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(socket.GetLastResultCode(), testing::AnyOf(11001, 11002, 11003));
}

TEST_F(TCPDestination, ANameWithSeveralAddressesIsTriedUntilOneAccepts) {
  LoopbackTcpServer server;  // listens on 127.0.0.1 alone; "localhost" may be ::1 first
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("TargetAddress", "localhost");
  socket.Initialize(parameters);
  EXPECT_TRUE(socket.IsConnected());
}

/// A socket whose target's name has one address only, of version 6.
class TCPSocketToIPv6Name : public TCPSocket {
 protected:
  ResolvedHost ResolveTarget() override {
    ResolvedHost target;
    target.m_addresses.emplace_back(static_cast<u_short>(m_port), "::1", AF_INET6);
    return target;
  }
};

TEST_F(TCPDestination, ConnectsToAnIPv6Address) {
  std::optional<LoopbackTcpServer> server;
  try {
    server.emplace([](LoopbackTcpServer& self, ServerConnection& connection, int) { self.KeepAllOf(connection); }, 0, 0,
                   true);
  } catch (const boost::system::system_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  WindowsAgentCommon::ParameterBlock parameters = Target(server->Port(), false);
  TCPSocketToIPv6Name named;
  named.Initialize(parameters);
  EXPECT_TRUE(named.IsConnected());
  for (const char* const address : {"::1", "[::1]"}) {
    TCPSocket literal;
    parameters.erase("TargetAddress");
    parameters.emplace("TargetAddress", address);
    literal.Initialize(parameters);
    EXPECT_EQ(literal.Send("one", 3), 4);
  }
  EXPECT_EQ(server->WaitForBytes(8), "one\none\n");
}

TEST_F(TCPDestination, TimesAreThoseOfTheWallClock) {
  LoopbackTcpServer server;
  const auto before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  socket.Initialize(Target(server.Port(), false));
  const auto after = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  EXPECT_GE(socket.GetConnectedSinceTime().sec(), before);
  EXPECT_LE(socket.GetConnectedSinceTime().sec(), after);
  EXPECT_EQ(socket.GetConnectedSinceTime(), socket.GetLastConnectAttemptTime());
}

}  // namespace
}  // namespace sorvex::test
