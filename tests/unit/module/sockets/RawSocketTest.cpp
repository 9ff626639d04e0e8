// What the raw sockets over TCP and over TLS do alike, against real peers on the loopback, and what they share
// against scripted results.
#include "Transports.h"
#include "sockets/RawSocket.h"

#include <support/ConnectionHandles.h>
#include <support/RecordingLogger.h>

#include <ace/ACE.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/asio/error.hpp>

#include <atomic>
#include <deque>
#include <memory>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;
using VaroCommunicationAPI::Platform::SocketError;

template <class Transport>
class RawSocket : public testing::Test {
 protected:
  void Open(std::uint32_t port) { socket.Open(L"127.0.0.1", port); }

  /// Every line that was logged is the socket's.
  void ExpectLoggerOfSocket() {
    for (const LogRecord& record : log->Records()) {
      EXPECT_EQ(record.logger, WindowsAgentCommon::Format(Transport::rawLoggerFormat, static_cast<const void*>(&socket),
                                                          socket.GetPort()));
      EXPECT_THAT(record.logger, testing::HasSubstr("RawSocket_0x"));
    }
  }

  RecordingLogger log;
  typename Transport::RawSocket socket;
};

TYPED_TEST_SUITE(RawSocket, Transports);

TYPED_TEST(RawSocket, IsNeitherOpenNorConnectedWhenNew) {
  EXPECT_FALSE(this->socket.IsOpen());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
  EXPECT_EQ(this->socket.GetBytesSent(), 0u);
  EXPECT_EQ(this->socket.GetBytesReceived(), 0u);
}

TYPED_TEST(RawSocket, OpenConnects) {
  typename TypeParam::Server server;
  this->Open(server.Port());
  EXPECT_TRUE(this->socket.IsOpen());
  EXPECT_TRUE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
  EXPECT_EQ(this->socket.GetHost(), L"127.0.0.1");
  EXPECT_EQ(this->socket.GetPort(), server.Port());
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::ConnectedLines()));
  this->ExpectLoggerOfSocket();
}

TYPED_TEST(RawSocket, ARefusedConnectionIsOpenWithItsNumberAndOneLine) {
  this->Open(UnusedPort());
  EXPECT_TRUE(this->socket.IsOpen());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 10061);
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::FailureLines(10061)));
  this->ExpectLoggerOfSocket();
}

TYPED_TEST(RawSocket, AnUnknownHostGivesItsNumber) {
  this->socket.Open(L"no-such-host.invalid", 514);
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_THAT(this->socket.GetLastResultCode(), testing::AnyOf(11001, 11002, 11003));
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::FailureLines(this->socket.GetLastResultCode())));
}

TYPED_TEST(RawSocket, ConnectsToAnIPv6Address) {
  std::unique_ptr<typename TypeParam::Server> server;
  try {
    server = TypeParam::MakeIPv6Server();
  } catch (const boost::system::system_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  for (const wchar_t* const host : {L"::1", L"[::1]"}) {
    this->socket.Open(host, server->Port());
    EXPECT_TRUE(this->socket.IsConnected());
  }
}

TYPED_TEST(RawSocket, SendsAndCounts) {
  typename TypeParam::Server server;
  this->Open(server.Port());
  EXPECT_EQ(this->socket.Send("hello", 5), 5);
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
  EXPECT_EQ(this->socket.GetBytesSent(), 5u);
  EXPECT_EQ(server.WaitForBytes(5), "hello");
}

TYPED_TEST(RawSocket, SendsLongBlocksWhole) {
  typename TypeParam::Server server;
  this->Open(server.Port());
  std::string block(5'000'000, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 % 251);
  EXPECT_EQ(this->socket.Send(block.data(), static_cast<std::uint32_t>(block.size())),
            static_cast<std::int32_t>(block.size()));
  EXPECT_TRUE(server.WaitForBytes(block.size()) == block);
}

TYPED_TEST(RawSocket, ReceivesLongBlocksWholeInOneCall) {
  std::string block(5'000'000, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 37 % 241);
  typename TypeParam::Server server([&](auto& self, auto& connection, int) {
    connection.Write(block);
    self.HoldUntilStopped();
  });
  this->Open(server.Port());
  std::string received(block.size(), '\0');
  EXPECT_EQ(this->socket.Receive(received.data(), static_cast<std::uint32_t>(block.size()), 20000),
            static_cast<std::int32_t>(block.size()));
  EXPECT_TRUE(received == block);
  EXPECT_EQ(this->socket.GetBytesReceived(), block.size());
}

TYPED_TEST(RawSocket, ReceivesExactlyWhatIsAskedForHoweverItArrives) {
  // Together, and then each byte by itself.
  typename TypeParam::Server server([](auto& self, auto& connection, int index) {
    for (const char c : std::string("abcdefgh")) {
      connection.Write({&c, 1});
      if (index > 0) std::this_thread::sleep_for(2ms);
    }
    self.HoldUntilStopped();
  });
  for (const std::uint32_t expectedInAll : {8u, 16u}) {
    this->Open(server.Port());
    char buffer[5] = {};
    EXPECT_EQ(this->socket.Receive(buffer, 4, TypeParam::noLimit), 4);
    EXPECT_STREQ(buffer, "abcd");
    EXPECT_EQ(this->socket.Receive(buffer, 4, 10000), 4);
    EXPECT_STREQ(buffer, "efgh");
    EXPECT_EQ(this->socket.GetBytesReceived(), expectedInAll);
  }
}

TYPED_TEST(RawSocket, ASilentPeerEndsTheReceiveAtTheTimeout) {
  typename TypeParam::Server server([](auto& self, auto&, int) { self.HoldUntilStopped(); });
  this->Open(server.Port());
  char buffer[4];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(this->socket.Receive(buffer, 4, 1000), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 990ms);
  EXPECT_LT(waited, 5s);
  EXPECT_EQ(this->socket.GetLastResultCode(), 137);
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::ConnectedLines({TypeParam::afterASecondOfSilence})));
  EXPECT_EQ(this->socket.GetBytesReceived(), 0u);
  EXPECT_TRUE(this->socket.IsConnected());
}

TYPED_TEST(RawSocket, TheTimeoutIsOfEachWaitAndNotOfTheWholeReceive) {
  typename TypeParam::Server server([](auto& self, auto& connection, int) {
    for (const char c : std::string("0123456789")) {
      connection.Write({&c, 1});
      std::this_thread::sleep_for(200ms);
    }
    self.HoldUntilStopped();
  });
  this->Open(server.Port());
  char buffer[10];
  EXPECT_EQ(this->socket.Receive(buffer, 10, 1500), 10);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
}

TYPED_TEST(RawSocket, AnEndedConnectionGivesItsNumber) {
  typename TypeParam::Server server([](auto&, auto& connection, int) {
    connection.Write("abc");
    connection.Close();
  });
  this->Open(server.Port());
  char buffer[4];
  EXPECT_EQ(this->socket.Receive(buffer, 4, 5000), 0);
  EXPECT_EQ(this->socket.GetLastResultCode(), 10101);
  EXPECT_THAT(this->log->Lines(), ElementsAreArray(TypeParam::ConnectedLines({"Error Error receiving data: 10101"})));
}

TYPED_TEST(RawSocket, AResetConnectionGivesItsNumber) {
  typename TypeParam::Server server([](auto&, auto& connection, int) {
    connection.ReadExactly(1);
    connection.Reset();
  });
  this->Open(server.Port());
  this->socket.Send("x", 1);
  char buffer[4];
  EXPECT_EQ(this->socket.Receive(buffer, 4, 5000), -1);
  EXPECT_EQ(this->socket.GetLastResultCode(), 10054);
}

TYPED_TEST(RawSocket, ReceivingNothingSucceeds) {
  typename TypeParam::Server server;
  this->Open(server.Port());
  char byte = 0;
  EXPECT_EQ(this->socket.Receive(&byte, 0, 100), 0);
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
}

TYPED_TEST(RawSocket, CloseTwiceIsHarmlessAndKeepsWhatWasSaid) {
  std::atomic<bool> isOrderly{false};
  typename TypeParam::Server server([&](auto&, auto& connection, int) {
    connection.ReadAll();
    isOrderly = connection.EndError() == boost::asio::error::eof;
  });
  this->Open(server.Port());
  this->socket.Send("x", 1);
  this->socket.Close();
  this->socket.Close();
  EXPECT_TRUE(this->socket.IsOpen());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetPort(), server.Port());
  EXPECT_EQ(this->socket.GetBytesSent(), 1u);
  EXPECT_TRUE(WaitUntil([&] { return isOrderly.load(); }));
}

TYPED_TEST(RawSocket, ConnectAgainReconnectsAndKeepsTheTotals) {
  std::atomic<int> served{0};
  typename TypeParam::Server server([&](auto& self, auto& connection, int) {
    ++served;
    self.KeepAllOf(connection);
  });
  this->Open(server.Port());
  this->socket.Send("x", 1);
  EXPECT_TRUE(this->socket.Connect());
  this->socket.Send("yz", 2);
  EXPECT_EQ(this->socket.GetBytesSent(), 3u);
  EXPECT_TRUE(WaitUntil([&] { return served == 2; }));
}

TYPED_TEST(RawSocket, OpenAgainGoesToTheOtherServer) {
  typename TypeParam::Server first;
  typename TypeParam::Server second;
  this->Open(first.Port());
  this->Open(second.Port());
  this->socket.Send("x", 1);
  EXPECT_EQ(second.WaitForBytes(1), "x");
  EXPECT_EQ(this->socket.GetPort(), second.Port());
}

TYPED_TEST(RawSocket, AFailedReconnectEndsTheConnectionAndASuccessClearsItsNumber) {
  std::atomic<int> ended{0};
  typename TypeParam::Server server([&](auto&, auto& connection, int) {
    connection.ReadAll();
    ++ended;
  });
  this->Open(server.Port());
  ASSERT_TRUE(this->socket.IsConnected());
  this->Open(UnusedPort());
  EXPECT_FALSE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 10061);
  EXPECT_TRUE(WaitUntil([&] { return ended == 1; }));
  this->Open(server.Port());
  EXPECT_TRUE(this->socket.IsConnected());
  EXPECT_EQ(this->socket.GetLastResultCode(), 0);
}

TYPED_TEST(RawSocket, AShortTimeoutIsNotRoundedUpToATenthOfASecond) {
  typename TypeParam::Server server([](auto& self, auto&, int) { self.HoldUntilStopped(); });
  this->Open(server.Port());
  char byte = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(this->socket.Receive(&byte, 1, 1), -1);
  // Rounded up, they would be ten seconds.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
  EXPECT_EQ(this->socket.GetLastResultCode(), 137);
}

TYPED_TEST(RawSocket, SendingAndReceivingWithoutConnectionFail) {
  this->Open(UnusedPort());
  this->log->Clear();
  char byte = 0;
  EXPECT_EQ(this->socket.Send("x", 1), -1);
  EXPECT_EQ(this->socket.GetLastResultCode(), 10057);
  EXPECT_EQ(this->socket.Receive(&byte, 1, 0), -1);
  EXPECT_EQ(this->socket.GetLastResultCode(), 10057);
  EXPECT_THAT(this->log->Lines(), ElementsAre("Error Error sending data: 10057", "Error Error receiving data: 10057"));
}

TYPED_TEST(RawSocket, APeerThatResetsGivesAnErrorAndNoSignal) {
  // Not before the socket knows that it is connected.
  typename TypeParam::Server server([](auto&, auto& connection, int) {
    connection.ReadExactly(1);
    connection.Reset();
  });
  this->Open(server.Port());
  this->log->Clear();
  const std::string block(100000, 'x');
  EXPECT_TRUE(WaitUntil([&] { return this->socket.Send(block.data(), 100000) == -1; }));
  EXPECT_THAT(this->socket.GetLastResultCode(), testing::AnyOf(10053, 10054));
  EXPECT_THAT(this->log->Lines(), ElementsAre(WindowsAgentCommon::Format("Error Error sending data: %d",
                                                                         this->socket.GetLastResultCode())));
}

TYPED_TEST(RawSocket, WhatThePeerSaidBeforeItReadsIsReceived) {
  const std::string block(8'000'000, 'x');
  auto server = TypeParam::MakeServer(
      [](auto& self, auto& connection, int) {
        connection.Write("answer");
        self.KeepAllOf(connection);
      },
      65536);
  this->Open(server.Port());
  const std::vector<ACE_HANDLE> handles = HandlesConnectedTo(server.Port());
  ASSERT_EQ(handles.size(), 1u);
  ASSERT_TRUE(WaitUntil([&] { return ACE::handle_read_ready(handles.front(), &ACE_Time_Value::zero) == 1; }));
  EXPECT_EQ(this->socket.Send(block.data(), 8'000'000), 8'000'000);
  char answer[6];
  EXPECT_EQ(this->socket.Receive(answer, 6, 5000), 6);
  EXPECT_EQ(std::string(answer, 6), "answer");
}

/// A raw socket over scripted results instead of a network.
class ScriptedRawBase : public VaroCommunicationAPI::RawSocket {
 public:
  ScriptedRawBase()
      : RawSocket(
            {.m_loggerName = "Code.ScriptedRawBase_%p.%s.%d", .m_noTimeout = 0xFFFFFFFF, .m_timeoutError = nullptr},
            [this](const WindowsAgentCommon::Log&) { return std::make_unique<Stream>(*this); }) {}

  std::deque<SocketError> results;  // of the next exchanges
  const ACE_Time_Value* lastWait = nullptr;
  ACE_Time_Value lastWaitValue;
  std::uint32_t TotalSent() const { return m_bytesSent; }
  std::uint32_t TotalReceived() const { return m_bytesReceived; }

 private:
  class Stream : public VaroCommunicationAPI::ISocketStream {
   public:
    explicit Stream(ScriptedRawBase& script) : m_script(script) {}
    SocketError Connect(const std::vector<ACE_INET_Addr>&, const std::wstring&,
                        const VaroCommunicationAPI::IsInterrupted&) override {
      return {};
    }
    void ReportConnect(const WindowsAgentCommon::Log&, SocketError) const override {}
    VaroCommunicationAPI::Platform::WriteOutcome Write(const char*, std::size_t length,
                                                       const VaroCommunicationAPI::IsInterrupted&,
                                                       const std::function<void()>&) override {
      const SocketError error = Next();
      return {error ? 0 : length, error};
    }
    SocketError Read(char*, std::size_t, const ACE_Time_Value* wait) override {
      m_script.lastWait = wait;
      if (wait) m_script.lastWaitValue = *wait;
      return Next();
    }
    SocketError PeerState() override { return {}; }
    void Finish(const VaroCommunicationAPI::IsInterrupted&) override {}
    void Close() override {}
    ACE_HANDLE Handle() const override { return ACE_INVALID_HANDLE; }

   private:
    SocketError Next() {
      const SocketError result = m_script.results.front();
      m_script.results.pop_front();
      return result;
    }

    ScriptedRawBase& m_script;
  };
};

class RawBase : public testing::Test {
 protected:
  RawBase() { socket.Open(L"127.0.0.1", 514); }

  RecordingLogger log;
  ScriptedRawBase socket;
};

TEST_F(RawBase, ASendTimeoutIsToldAtDebugAsWell) {
  socket.results = {SocketError(137)};
  EXPECT_EQ(socket.Send("abc", 3), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 137", "Debug Socket timeout."));
}

TEST_F(RawBase, ASendThatWouldBlockIsToldAtDebugAsWell) {
  socket.results = {SocketError(10035)};
  EXPECT_EQ(socket.Send("abc", 3), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10035);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10035", "Debug Would block."));
}

TEST_F(RawBase, ASendThatFailsCountsNothing) {
  socket.results = {SocketError(10054)};
  EXPECT_EQ(socket.Send("abc", 3), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
  EXPECT_EQ(socket.TotalSent(), 0u);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error sending data: 10054"));
}

TEST_F(RawBase, AReceiveThatFailsCountsNothing) {
  socket.results = {SocketError(10054), SocketError(10101)};
  char buffer[3];
  EXPECT_EQ(socket.Receive(buffer, 3, 100), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
  EXPECT_EQ(socket.Receive(buffer, 3, 100), 0);
  EXPECT_EQ(socket.GetLastResultCode(), 10101);
  EXPECT_EQ(socket.TotalReceived(), 0u);
}

TEST_F(RawBase, ASuccessClearsTheResultCode) {
  socket.results = {SocketError(137), SocketError(), SocketError(137), SocketError()};
  socket.Send("abc", 3);
  socket.Send("abc", 3);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  char buffer[3];
  socket.Receive(buffer, 3, 100);
  socket.Receive(buffer, 3, 100);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
}

TEST_F(RawBase, TheTimeoutIsConvertedToSecondsAndMicroseconds) {
  socket.results = {SocketError()};
  char byte;
  socket.Receive(&byte, 1, 2500);
  EXPECT_EQ(socket.lastWaitValue, ACE_Time_Value(2, 500000));
}

TEST_F(RawBase, TheTimeoutWrapsAt32BitsOfMicroseconds) {
  socket.results = {SocketError()};
  char byte;
  socket.Receive(&byte, 1, 4294968);  // 4294968000 microseconds are 704 beyond 32 bits
  EXPECT_EQ(socket.lastWaitValue, ACE_Time_Value(0, 704));
}

TEST_F(RawBase, TheSpecialTimeoutWaitsForEver) {
  socket.results = {SocketError()};
  char byte;
  socket.Receive(&byte, 1, 0xFFFFFFFF);
  EXPECT_EQ(socket.lastWait, nullptr);
}

TEST_F(RawBase, TotalsWrapAt32Bits) {
  for (int i = 0; i < 3; ++i) {
    socket.results = {SocketError()};
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
