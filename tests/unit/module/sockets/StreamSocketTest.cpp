// What the destination sockets over TCP and over TLS do alike, against real peers on the loopback.
#include "StreamSocketFixture.h"
#include "platform/SocketErrors.h"

#include <support/BlackHole.h>

#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/system/system_error.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;

template <class Transport>
class StreamSocket : public StreamSocketFixture<Transport> {};

TYPED_TEST_SUITE(StreamSocket, Transports);

TYPED_TEST(StreamSocket, DeliversPayloadsInOrder) {
  typename TypeParam::Server server;
  this->socket.Initialize(TypeParam::Target(server.Port(), false));
  ASSERT_TRUE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
  EXPECT_EQ(this->Send("one"), 4);
  EXPECT_EQ(this->Send("two"), 4);
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(this->socket.GetBytesSent(), 8u);
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::ConnectedLines()));
}

TYPED_TEST(StreamSocket, DeliversQueuedPayloadsInOrder) {
  typename TypeParam::Server server;
  this->socket.Initialize(TypeParam::Target(server.Port(), true));
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    const std::string payload = "payload " + std::to_string(i);
    ASSERT_EQ(this->Send(payload), static_cast<std::int32_t>(payload.size() + 1));
    expected += payload + '\n';
  }
  EXPECT_EQ(this->socket.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(expected.size()), expected);
  EXPECT_EQ(this->socket.GetMessagesSent(), 20000u);
}

TYPED_TEST(StreamSocket, TheLimitCutsQueuedPayloadsOnly) {
  typename TypeParam::Server server;
  this->socket.Initialize(TypeParam::Target(server.Port(), false));
  const std::string payload(40000, 'x');
  EXPECT_EQ(this->Send(payload), 32001);
  EXPECT_EQ(server.WaitForBytes(40001).size(), 40001u);
  EXPECT_EQ(this->socket.GetMessagesTruncated(), 1u);
  EXPECT_EQ(this->socket.GetBytesTruncated(), 8000u);

  typename TypeParam::DestinationSocket queued;
  queued.Initialize(TypeParam::Target(server.Port(), true));
  EXPECT_EQ(queued.Send(payload.data(), 40000), 32001);
  EXPECT_EQ(queued.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(72002).size(), 72002u);
}

TYPED_TEST(StreamSocket, LoggerIsNamedAfterObjectHostAndPort) {
  typename TypeParam::Server server;
  this->socket.Initialize(TypeParam::Target(server.Port(), true));
  this->socket.Shutdown();
  for (const LogRecord& record : this->log->Records()) {
    EXPECT_EQ(record.logger, WindowsAgentCommon::Format(TypeParam::destinationLoggerFormat,
                                                        static_cast<const void*>(&this->socket), server.Port()));
  }
  EXPECT_THAT(this->log->Lines(),
              ElementsAreArray(TypeParam::ConnectedLines({"Info Thread running...", "Info Thread exiting"})));
}

TYPED_TEST(StreamSocket, ARefusedConnectionIsToldOnce) {
  this->socket.Initialize(TypeParam::Target(UnusedPort(), false));
  EXPECT_TRUE(this->socket.IsOpen());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 10061);
  EXPECT_EQ(this->socket.GetLastConnectFailureTime(), this->socket.GetLastConnectAttemptTime());
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::FailureLines(10061)));
}

TYPED_TEST(StreamSocket, ABlockingSendWithoutServerFailsAfterAboutASecond) {
  this->socket.Initialize(TypeParam::Target(UnusedPort(), false));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(this->Send("x"), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 990ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TYPED_TEST(StreamSocket, AReconnectThatIsRefusedTellsTheReason) {
  this->socket.Initialize(TypeParam::Target(UnusedPort(), false));
  this->log->Clear();
  EXPECT_EQ(this->Send("x"), -1);
  ExpectedLines expected = TypeParam::FailureLines(10061);
  expected.insert(expected.begin(), "Debug Socket isn't connected; calling reconnect...");
  expected.emplace_back("Warn Reconnect failed; will try again later. Reason: " + SocketError(10061).Text());
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(expected));
}

TYPED_TEST(StreamSocket, ReceiveThrows) {
  char byte = 0;
  try {
    this->socket.Receive(&byte, 1, 0);
    FAIL() << "nothing was thrown";
  } catch (const WindowsAgentCommon::OperationNotSupportedException& exception) {
    EXPECT_EQ(exception.GetFunction(), TypeParam::destinationReceive);
    EXPECT_EQ(exception.GetSourceFile(), TypeParam::destinationSourceFile);
  }
}

TYPED_TEST(StreamSocket, APeerThatClosesIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosed{false};
  typename TypeParam::Server server([&](auto& self, auto& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    self.AddReceived(connection.ReadExactly(4));
    connection.Close();
    isClosed = true;
  });
  ASSERT_NO_FATAL_FAILURE(this->SendOneAndTwo(server, isClosed));
  this->Send("six");
  EXPECT_EQ(server.WaitForBytes(12), "one\ntwo\nsix\n");
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_THAT(this->log->Lines(), Contains("Warn Socket connection problem (error = '" + ErrorPeerClosed.Text() +
                                           "'). Trying to reconnect..."));
}

TYPED_TEST(StreamSocket, APeerThatTalksIsListenedToForItsEndAlone) {
  typename TypeParam::Server server([](auto& self, auto& connection, int) {
    connection.Write(std::string(10000, '?'));
    self.KeepAllOf(connection);
  });
  this->SendOneAndTwo(server, true);
  EXPECT_EQ(server.Connections(), 1);
}

TYPED_TEST(StreamSocket, APeerThatTalksAndClosesIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosed{false};
  typename TypeParam::Server server([&](auto& self, auto& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    connection.Write(std::string(10000, '?'));
    self.AddReceived(connection.ReadExactly(4));
    connection.Close();
    isClosed = true;
  });
  this->SendOneAndTwo(server, isClosed);
}

TYPED_TEST(StreamSocket, APeerThatResetsWhileWeWriteEndsNoProcess) {
  typename TypeParam::Server server([](auto& self, auto& connection, int index) {
    if (index > 0) return self.KeepAllOf(connection);
    connection.ReadExactly(1);
    connection.Reset();
  });
  this->socket.Initialize(TypeParam::Target(server.Port(), true));
  const std::string payload(20000, 'x');
  for (int i = 0; i < 300; ++i) this->Send(payload);
  EXPECT_EQ(this->socket.Shutdown(), 0);
  EXPECT_EQ(this->socket.GetMessagesSubmitted(), 300u);
  EXPECT_EQ(this->socket.GetMessagesSent() + this->socket.GetMessagesDropped(), 300u);
  EXPECT_EQ(server.Connections(), 2);
}

TYPED_TEST(StreamSocket, ShutdownGivesUpADestinationThatNeverReadsWithinTwoSeconds) {
  auto server = TypeParam::MakeServer([](auto& self, auto&, int) { self.HoldUntilStopped(); }, 4096);
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  this->socket.Initialize(parameters);
  const std::string payload(30000, 'x');
  for (int i = 0; i < 1000; ++i) ASSERT_GT(this->Send(payload), 0);
  this->ShutdownWithinTwoSeconds();
  EXPECT_GT(this->socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(this->socket.GetMessagesSent() + this->socket.GetMessagesDropped(), 1000u);
  EXPECT_EQ(this->socket.GetBytesDropped(), this->socket.GetMessagesDropped() * 30000u);
  EXPECT_THAT(this->log->Lines(), Contains("Info Thread exiting"));
}

TYPED_TEST(StreamSocket, ShutdownInterruptsAReconnectIntoABlackHole) {
  const std::uint16_t port = UnusedPort();
  this->socket.Initialize(TypeParam::Target(port, true));
  const BlackHole blackHole(port);
  this->Send("hello");
  ASSERT_TRUE(WaitUntil([&] { return this->log->Count("Debug Socket isn't connected; calling reconnect...") == 1; }));
  this->ShutdownWithinTwoSeconds();
  EXPECT_EQ(this->socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(this->log->Count("Info Thread exiting"), 1u);
}

TYPED_TEST(StreamSocket, ShutdownInterruptsTheFirstConnect) {
  const BlackHole blackHole;
  std::thread opener([&] { this->socket.Initialize(TypeParam::Target(blackHole.Port(), true)); });
  ASSERT_TRUE(WaitUntil([&] { return this->socket.GetLastConnectAttemptTime() != ACE_Time_Value::zero; }));
  this->ShutdownWithinTwoSeconds();
  opener.join();
  EXPECT_FALSE(this->socket.IsOpen());
  EXPECT_EQ(this->Send("hello"), -1);
}

TYPED_TEST(StreamSocket, ShutdownInterruptsABlockingSendToAReceiverThatNeverReads) {
  auto server = TypeParam::MakeServer([](auto& self, auto&, int) { self.HoldUntilStopped(); }, 4096);
  this->socket.Initialize(TypeParam::Target(server.Port(), false));
  std::atomic<bool> isBlocked{true};
  std::thread sender([&] {
    const std::string payload(1'000'000, 'x');
    while (this->Send(payload) > 0) {
    }
    isBlocked = false;
  });
  // Nothing more is sent for a while: the sender waits for room.
  std::uint32_t sent = 0;
  ASSERT_TRUE(WaitUntil([&] {
    std::this_thread::sleep_for(200ms);
    return std::exchange(sent, this->socket.GetMessagesSubmitted()) == this->socket.GetMessagesSubmitted() && sent > 0;
  }));
  EXPECT_TRUE(isBlocked);
  this->ShutdownWithinTwoSeconds();
  sender.join();
}

TYPED_TEST(StreamSocket, AStopCountsWhatTheSystemTakesAsProgress) {
  // Some three seconds for what the queue holds, in steps shorter than a stop's patience and long enough to be waited
  // for.
  auto server = TypeParam::MakeServer(
      [](auto& self, auto& connection, int) {
        bool more = true;
        while (more) {
          std::string part;
          while (more && part.size() < 65536) more = connection.ReadSome(part, 65536 - part.size());
          self.AddReceived(part);
          std::this_thread::sleep_for(150ms);
        }
      },
      65536);
  // The system does not tell what the peer has taken.
  typename TypeParam::DestinationSocket destination(
      {.m_peerProgress = [](ACE_HANDLE) { return std::optional<std::uint64_t>(); }});
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  destination.Initialize(parameters);
  const std::string payload(30000, 'x');
  for (int i = 0; i < 45; ++i) ASSERT_GT(destination.Send(payload.data(), 30000), 0);
  EXPECT_EQ(destination.Shutdown(), 0);
  EXPECT_EQ(destination.GetMessagesDropped(), 0u);
  EXPECT_EQ(server.WaitForBytes(45u * 30001u).size(), 45u * 30001u);
}

TYPED_TEST(StreamSocket, AReceiverThatEchoesEverythingIsNotKeptFromReading) {
  typename TypeParam::Server server([](auto& self, auto& connection, int) {
    std::string part;
    while (connection.ReadSome(part, 65536)) {
      self.AddReceived(part);
      connection.Write(part);
      part.clear();
    }
  });
  for (const bool isQueued : {true, false}) {
    typename TypeParam::DestinationSocket destination;
    destination.Initialize(TypeParam::Target(server.Port(), isQueued));
    const std::size_t before = server.Received().size();
    const std::string payload(30000, 'x');
    for (int i = 0; i < 700; ++i) ASSERT_GT(destination.Send(payload.data(), 30000), 0);
    EXPECT_EQ(destination.Shutdown(), 0);
    EXPECT_EQ(destination.GetMessagesSent(), 700u);
    EXPECT_EQ(server.WaitForBytes(before + 700u * 30001u).size(), before + 700u * 30001u);
  }
}

/// Calls of another thread while the send thread waits for a receiver that never reads.
TYPED_TEST(StreamSocket, CloseConnectAndOpenDoNotWaitForAReceiverThatNeverReads) {
  auto server = TypeParam::MakeServer([](auto& self, auto&, int) { self.HoldUntilStopped(); }, 4096);
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  this->socket.Initialize(parameters);
  const std::string payload(30000, 'x');
  for (int i = 0; i < 500; ++i) ASSERT_GT(this->Send(payload), 0);
  const auto withinTwoSeconds = [](const auto& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  };
  // Each connection fills anew, until the sender waits again.
  const auto waitUntilStuck = [&] {
    std::uint32_t before = 0;
    return WaitUntil([&] {
      std::this_thread::sleep_for(200ms);
      const std::uint32_t sent = this->socket.GetMessagesSent();
      return this->socket.IsConnected() && std::exchange(before, sent) == sent;
    });
  };
  ASSERT_TRUE(waitUntilStuck());
  // Otherwise the system would hold megabytes, which are lost when the connection breaks.
  EXPECT_LT(this->socket.GetBytesSent(), 1'000'000u);
  withinTwoSeconds([&] { this->socket.Close(); });
  ASSERT_TRUE(waitUntilStuck());
  withinTwoSeconds([&] { EXPECT_TRUE(this->socket.Connect()); });
  ASSERT_TRUE(waitUntilStuck());
  withinTwoSeconds([&] { this->socket.Open(L"127.0.0.1", server.Port()); });
  this->ShutdownWithinTwoSeconds();
}

TYPED_TEST(StreamSocket, CloseAndConnectDoNotWaitForAnAttemptIntoABlackHole) {
  const std::uint16_t port = UnusedPort();
  this->socket.Initialize(TypeParam::Target(port, true));
  const BlackHole blackHole(port);
  this->Send("hello");
  ASSERT_TRUE(WaitUntil([&] { return this->log->Count("Debug Socket isn't connected; calling reconnect...") == 1; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(this->socket.Connect());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TYPED_TEST(StreamSocket, ShutdownWaitsForASlowReceiverThatTakesData) {
  auto server = TypeParam::MakeServer(
      [](auto& self, auto& connection, int) {
        std::string part;
        while (connection.ReadSome(part, 200000)) {
          self.AddReceived(part);
          part.clear();
          std::this_thread::sleep_for(TypeParam::slowReceiverPause);
        }
      },
      65536);
  this->socket.Initialize(TypeParam::Target(server.Port(), true));
  const std::string payload(30000, 'x');
  for (int i = 0; i < 200; ++i) ASSERT_GT(this->Send(payload), 0);
  EXPECT_EQ(this->socket.Shutdown(), 0);
  EXPECT_EQ(this->socket.GetMessagesSent(), 200u);
  EXPECT_EQ(this->socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(server.WaitForBytes(200u * 30001u).size(), 200u * 30001u);
}

TYPED_TEST(StreamSocket, KeepAliveIsSetOnTheConnection) {
  typename TypeParam::Server server;
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  this->socket.Initialize(parameters);
  EXPECT_TRUE(this->socket.IsConnected());
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::ConnectedLines()));
}

TYPED_TEST(StreamSocket, KeepAliveThatCannotBeSetIsWarnedOf) {
  typename TypeParam::Server server;
  typename TypeParam::DestinationSocket destination(
      {.m_setKeepAlive = [](ACE_HANDLE, std::uint32_t, std::uint32_t) { return SocketError(10042); }});
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  destination.Initialize(parameters);
  EXPECT_TRUE(destination.IsConnected());
  EXPECT_THAT(this->log->Lines(),
              ElementsAreArray(TypeParam::ConnectedLines({TypeParam::keepAliveWarning + SocketError(10042).Text()})));
}

TYPED_TEST(StreamSocket, TheQueueHasItsMarksFromTheStart) {
  EXPECT_EQ(this->socket.msg_queue()->low_water_mark(), 999500u);
  EXPECT_EQ(this->socket.msg_queue()->high_water_mark(), 1000000u);
}

TYPED_TEST(StreamSocket, TheMarksOfTheQueueAreTakenFromTheParameters) {
  typename TypeParam::Server server;
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), true);
  parameters.emplace("Socket.QueueLowWaterMark", "1000");
  parameters.emplace("Socket.QueueHighWaterMark", "2000");
  this->socket.Initialize(parameters);
  EXPECT_EQ(this->socket.msg_queue()->low_water_mark(), 1000u);
  EXPECT_EQ(this->socket.msg_queue()->high_water_mark(), 2000u);
}

TYPED_TEST(StreamSocket, AnUnknownHostCanBeOpenedAndFailsToConnect) {
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(514, false);
  parameters.emplace("TargetAddress", "no-such-host.invalid");
  this->socket.Initialize(parameters);
  EXPECT_TRUE(this->socket.IsOpen());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_THAT(this->socket.GetLastResultCode(), testing::AnyOf(11001, 11002, 11003));
}

TYPED_TEST(StreamSocket, ANameWithSeveralAddressesIsTriedUntilOneAccepts) {
  typename TypeParam::Server server;  // listens on 127.0.0.1 alone; "localhost" may be ::1 first
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server.Port(), false);
  parameters.emplace("TargetAddress", "localhost");
  this->socket.Initialize(parameters);
  EXPECT_TRUE(this->socket.IsConnected());
}

/// A resolver to which every name has one address only, of version 6.
ResolvedHost ResolveToIPv6(const std::wstring&, std::uint32_t port, AddressFamily, const std::function<bool()>&) {
  ResolvedHost target;
  target.m_addresses.emplace_back(static_cast<u_short>(port), "::1", AF_INET6);
  return target;
}

TYPED_TEST(StreamSocket, ConnectsToAnIPv6Address) {
  std::unique_ptr<typename TypeParam::Server> server;
  try {
    server = TypeParam::MakeIPv6Server();
  } catch (const boost::system::system_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  WindowsAgentCommon::ParameterBlock parameters = TypeParam::Target(server->Port(), false);
  typename TypeParam::DestinationSocket named({.m_resolveHost = &ResolveToIPv6});
  named.Initialize(parameters);
  EXPECT_TRUE(named.IsConnected());
  for (const char* const address : {"::1", "[::1]"}) {
    typename TypeParam::DestinationSocket literal;
    parameters.erase("TargetAddress");
    parameters.emplace("TargetAddress", address);
    literal.Initialize(parameters);
    ASSERT_TRUE(literal.IsConnected());
    EXPECT_EQ(literal.Send("one", 3), 4);
  }
  EXPECT_EQ(server->WaitForBytes(8), "one\none\n");
}

TYPED_TEST(StreamSocket, TimesAreThoseOfTheWallClock) {
  typename TypeParam::Server server;
  const auto before = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  this->socket.Initialize(TypeParam::Target(server.Port(), false));
  const auto after = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  EXPECT_GE(this->socket.GetConnectedSinceTime().sec(), before);
  EXPECT_LE(this->socket.GetConnectedSinceTime().sec(), after);
  EXPECT_EQ(this->socket.GetConnectedSinceTime(), this->socket.GetLastConnectAttemptTime());
}

}  // namespace
}  // namespace sorvex::test
