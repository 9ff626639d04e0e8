// The raw TCP socket against real peers on the loopback, and its shared base against scripted results.
#include "platform/SocketErrors.h"
#include "sockets/TCPRawSocket.h"

#include <support/LoopbackTcpServer.h>
#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <optional>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::ElementsAre;
using testing::IsEmpty;
using VaroCommunicationAPI::RawSocketBase;
using VaroCommunicationAPI::RawTransfer;
using VaroCommunicationAPI::TCPRawSocket;

class RawTCP : public testing::Test {
 protected:
  RecordingLogger log;
  TCPRawSocket socket;
};

TEST_F(RawTCP, IsNeitherOpenNorConnectedWhenNew) {
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_EQ(socket.GetBytesSent(), 0u);
  EXPECT_EQ(socket.GetBytesReceived(), 0u);
}

TEST_F(RawTCP, OpenConnects) {
  LoopbackTcpServer server;
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(socket.GetHost(), L"127.0.0.1");
  EXPECT_EQ(socket.GetPort(), server.Port());
  EXPECT_THAT(log->Lines(), IsEmpty());
}

TEST_F(RawTCP, ARefusedConnectionIsOpenWithItsNumberAndOneWarning) {
  socket.Open(L"127.0.0.1", UnusedPort());
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_THAT(log->Lines("Code.TCPRawSocket_0x"),
              ElementsAre("Warn The target server actively refused the TCP syslog connection."));
}

TEST_F(RawTCP, AnUnknownHostIsNotWarnedOf) {
  socket.Open(L"no-such-host.invalid", 514);
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(socket.GetLastResultCode(), testing::AnyOf(11001, 11002, 11003));
  EXPECT_THAT(log->Lines(), IsEmpty());
}

TEST_F(RawTCP, ConnectsToAnIPv6Address) {
  std::optional<LoopbackTcpServer> server;
  try {
    server.emplace([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); }, 0, 0, true);
  } catch (const boost::system::system_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  for (const wchar_t* const host : {L"::1", L"[::1]"}) {
    socket.Open(host, server->Port());
    EXPECT_TRUE(socket.IsConnected());
  }
}

TEST_F(RawTCP, SendsAndCounts) {
  LoopbackTcpServer server;
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_EQ(socket.Send("hello", 5), 5);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_EQ(socket.GetBytesSent(), 5u);
  EXPECT_EQ(server.WaitForBytes(5), "hello");
}

TEST_F(RawTCP, ReceivesExactlyWhatIsAskedForHoweverItArrives) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int) {
    for (const char c : std::string("abcdefgh")) {
      connection.Write({&c, 1});
      std::this_thread::sleep_for(2ms);
    }
    self.HoldUntilStopped();
  });
  socket.Open(L"127.0.0.1", server.Port());
  char buffer[5] = {};
  EXPECT_EQ(socket.Receive(buffer, 4, 0), 4);
  EXPECT_STREQ(buffer, "abcd");
  EXPECT_EQ(socket.Receive(buffer, 4, 10000), 4);
  EXPECT_STREQ(buffer, "efgh");
  EXPECT_EQ(socket.GetBytesReceived(), 8u);
}

TEST_F(RawTCP, ASilentPeerEndsTheReceiveAtTheTimeout) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  socket.Open(L"127.0.0.1", server.Port());
  char buffer[4];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Receive(buffer, 4, 300), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 290ms);
  EXPECT_LT(waited, 5s);
  EXPECT_EQ(socket.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error receiving data: 137"));
  EXPECT_EQ(socket.GetBytesReceived(), 0u);
}

TEST_F(RawTCP, AnEndedConnectionGivesItsNumber) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) {
    connection.Write("abc");
    connection.Close();
  });
  socket.Open(L"127.0.0.1", server.Port());
  char buffer[4];
  EXPECT_EQ(socket.Receive(buffer, 4, 5000), 0);
  EXPECT_EQ(socket.GetLastResultCode(), 10101);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error receiving data: 10101"));
}

TEST_F(RawTCP, AResetConnectionGivesItsNumber) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) {
    connection.ReadExactly(1);
    connection.Reset();
  });
  socket.Open(L"127.0.0.1", server.Port());
  socket.Send("x", 1);
  char buffer[4];
  EXPECT_EQ(socket.Receive(buffer, 4, 5000), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
}

TEST_F(RawTCP, ReceivingNothingSucceeds) {
  LoopbackTcpServer server;
  socket.Open(L"127.0.0.1", server.Port());
  char byte = 0;
  EXPECT_EQ(socket.Receive(&byte, 0, 100), 0);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

TEST_F(RawTCP, CloseTwiceIsHarmlessAndKeepsWhatWasSaid) {
  LoopbackTcpServer server;
  socket.Open(L"127.0.0.1", server.Port());
  socket.Send("x", 1);
  socket.Close();
  socket.Close();
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetPort(), server.Port());
  EXPECT_EQ(socket.GetBytesSent(), 1u);
}

TEST_F(RawTCP, ConnectAgainReconnectsAndKeepsTheTotals) {
  LoopbackTcpServer server;
  socket.Open(L"127.0.0.1", server.Port());
  socket.Send("x", 1);
  EXPECT_TRUE(socket.Connect());
  socket.Send("yz", 2);
  EXPECT_EQ(socket.GetBytesSent(), 3u);
  EXPECT_TRUE(WaitUntil([&] { return server.Connections() == 2; }));
}

TEST_F(RawTCP, SendingAndReceivingWithoutConnectionFail) {
  socket.Open(L"127.0.0.1", UnusedPort());
  log->Clear();
  char byte = 0;
  EXPECT_EQ(socket.Send("x", 1), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10057);
  EXPECT_EQ(socket.Receive(&byte, 1, 0), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10057);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10057", "Error Error receiving data: 10057"));
}

TEST_F(RawTCP, APeerThatResetsGivesAnErrorAndNoSignal) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) { connection.Reset(); });
  socket.Open(L"127.0.0.1", server.Port());
  const std::string block(100000, 'x');
  EXPECT_TRUE(WaitUntil([&] { return socket.Send(block.data(), 100000) == -1; }));
  EXPECT_NE(socket.GetLastResultCode(), 0);
}

/// The shared base over scripted results instead of a network.
class FakeRawSocket : public RawSocketBase<FakeRawSocket> {
 public:
  std::deque<RawTransfer> results;  // of the next exchanges
  const ACE_Time_Value* lastWait = nullptr;
  ACE_Time_Value lastWaitValue;
  std::uint32_t TotalSent() const { return m_bytesSent; }
  std::uint32_t TotalReceived() const { return m_bytesReceived; }

 private:
  friend class RawSocketBase<FakeRawSocket>;
  static constexpr const char* loggerNameFormat = "Code.FakeRawSocket_%p.%s.%d";
  static bool WaitsForEver(std::uint32_t timeoutMs) { return timeoutMs == 0xFFFFFFFF; }
  int OpenStream(const std::vector<ACE_INET_Addr>&) { return 0; }
  void CloseStream() {}
  void ReportConnected() {}
  void ReportConnectFailure(int) {}
  RawTransfer SendAll(const void*, std::size_t) { return Next(); }
  RawTransfer ReceiveAll(void*, std::size_t, const ACE_Time_Value* wait) {
    lastWait = wait;
    if (wait) lastWaitValue = *wait;
    return Next();
  }
  void ReportReceiveFailure(int error, std::uint32_t) { m_log.Error("Error receiving data: %d", error); }
  RawTransfer Next() {
    const RawTransfer result = results.front();
    results.pop_front();
    return result;
  }
};

class RawBase : public testing::Test {
 protected:
  RawBase() { socket.Open(L"127.0.0.1", 514); }

  RecordingLogger log;
  FakeRawSocket socket;
};

TEST_F(RawBase, ASendTimeoutIsToldAtDebugAsWell) {
  socket.results = {{-1, 137}};
  EXPECT_EQ(socket.Send("abc", 3), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 137", "Debug Socket timeout."));
}

TEST_F(RawBase, ASendThatWouldBlockIsToldAtDebugAsWell) {
  socket.results = {{-1, 10035}};
  EXPECT_EQ(socket.Send("abc", 3), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10035);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10035", "Debug Would block."));
}

TEST_F(RawBase, AShortSendIsAnErrorAndItsBytesCount) {
  socket.results = {{2, 10054}};
  EXPECT_EQ(socket.Send("abc", 3), 2);
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
  EXPECT_EQ(socket.TotalSent(), 2u);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10054"));
}

TEST_F(RawBase, AShortReceiveIsAnErrorAndItsBytesCount) {
  socket.results = {{2, 10054}};
  char buffer[3];
  EXPECT_EQ(socket.Receive(buffer, 3, 100), 2);
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
  EXPECT_EQ(socket.TotalReceived(), 2u);
}

TEST_F(RawBase, ASuccessClearsTheResultCode) {
  socket.results = {{-1, 137}, {3, 0}};
  socket.Send("abc", 3);
  socket.Send("abc", 3);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

TEST_F(RawBase, TheTimeoutIsConvertedToSecondsAndMicroseconds) {
  socket.results = {{1, 0}};
  char byte;
  socket.Receive(&byte, 1, 2500);
  EXPECT_EQ(socket.lastWaitValue, ACE_Time_Value(2, 500000));
}

TEST_F(RawBase, TheTimeoutWrapsAt32BitsOfMicroseconds) {
  socket.results = {{1, 0}};
  char byte;
  socket.Receive(&byte, 1, 4294968);  // 4294968000 microseconds are 704 beyond 32 bits
  EXPECT_EQ(socket.lastWaitValue, ACE_Time_Value(0, 704));
}

TEST_F(RawBase, TheSpecialTimeoutWaitsForEver) {
  socket.results = {{1, 0}};
  char byte;
  socket.Receive(&byte, 1, 0xFFFFFFFF);
  EXPECT_EQ(socket.lastWait, nullptr);
}

TEST_F(RawBase, TotalsWrapAt32Bits) {
  for (int i = 0; i < 3; ++i) {
    socket.results = {{0x7FFFFFFF, 0}};
    socket.Send("", 0x7FFFFFFF);
  }
  EXPECT_EQ(socket.TotalSent(), 0x7FFFFFFFu * 3u);
}

TEST_F(RawBase, OpenWithItsOwnHostKeepsIt) {
  socket.Open(socket.GetHost(), 515);
  EXPECT_EQ(socket.GetHost(), L"127.0.0.1");
  EXPECT_EQ(socket.GetPort(), 515u);
}

}  // namespace
}  // namespace sorvex::test
