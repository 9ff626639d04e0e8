// The UDP destination socket against a receiver on the loopback, and against scripted results on a clock of the test.
#include "ScriptedStreamSocket.h"
#include "platform/SocketErrors.h"
#include "sockets/UDPSocket.h"

#include <support/LoopbackUdpServer.h>
#include <support/RecordingLogger.h>

#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <thread>
#include <utility>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using VaroCommunicationAPI::UDPSocket;

WindowsAgentCommon::ParameterBlock Target(std::uint16_t port, bool isQueued) {
  return {{"TargetPort", std::to_string(port)}, {"Socket.BlockingSendStrategy", isQueued ? "false" : "true"}};
}

std::string Configuration(std::uint16_t port) {
  return "Debug UDPSocket addr:127.0.0.1 port:" + std::to_string(port) +
         " maxPayload:1020 builder:SyslogPayloadBuilder";
}

class UDPDestination : public testing::Test {
 protected:
  ~UDPDestination() override { socket.Shutdown(); }

  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  RecordingLogger log;
  UDPSocket socket;
};

TEST_F(UDPDestination, IsNeitherOpenNorConnectedWhenNew) {
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 0u);
}

TEST_F(UDPDestination, InitializeTellsTheConfigurationAndOpens) {
  LoopbackUdpServer server;
  socket.Initialize(Target(server.Port(), false));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_EQ(socket.GetHost(), L"127.0.0.1");
  EXPECT_EQ(socket.GetPort(), server.Port());
  ASSERT_THAT(log->Lines(), ElementsAre(Configuration(server.Port())));
  EXPECT_EQ(log->Records().front().logger, "Code.UDPSocket");
}

TEST_F(UDPDestination, InitializeTellsWhatTheParametersSay) {
  socket.Initialize({{"TargetAddress", "localhost"},
                     {"TargetPort", "5514"},
                     {"MaxPayloadSize", "2000"},
                     {"PayloadBuilderType", "RawPayloadBuilder"}});
  EXPECT_EQ(log->Lines().front(), "Debug UDPSocket addr:localhost port:5514 maxPayload:2000 builder:RawPayloadBuilder");
}

TEST_F(UDPDestination, SendsOneDatagramAPayloadWithoutLineFeed) {
  LoopbackUdpServer server;
  socket.Initialize(Target(server.Port(), false));
  EXPECT_EQ(Send("one"), 3);
  EXPECT_EQ(Send("two"), 3);
  EXPECT_THAT(server.WaitForDatagrams(2), ElementsAre("one", "two"));
  EXPECT_EQ(socket.GetMessagesSent(), 2u);
  EXPECT_EQ(socket.GetBytesSent(), 6u);
}

TEST_F(UDPDestination, SendsQueuedPayloadsInOrder) {
  LoopbackUdpServer server;
  socket.Initialize(Target(server.Port(), true));
  std::vector<std::string> expected;
  for (int i = 0; i < 150; ++i) {
    expected.push_back("payload " + std::to_string(i));
    ASSERT_EQ(Send(expected.back()), static_cast<std::int32_t>(expected.back().size()));
  }
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 150u);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(server.WaitForDatagrams(150), expected);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_THAT(log->Lines(), ElementsAre(Configuration(server.Port()), "Info Thread running...", "Info Thread exiting"));
}

TEST_F(UDPDestination, TheLimitCutsInBothStrategies) {
  LoopbackUdpServer server;
  for (const bool isQueued : {false, true}) {
    UDPSocket destination;
    destination.Initialize(Target(server.Port(), isQueued));
    EXPECT_EQ(destination.Send(std::string(2000, 'x').data(), 2000), 1020);
    EXPECT_EQ(destination.Shutdown(), 0);
    EXPECT_EQ(destination.GetMessagesTruncated(), 1u);
    EXPECT_EQ(destination.GetBytesTruncated(), 980u);
    EXPECT_EQ(destination.GetBytesSubmitted(), 2000u);
    EXPECT_EQ(destination.GetBytesSent(), 1020u);
  }
  EXPECT_THAT(server.WaitForDatagrams(2), testing::AllOf(SizeIs(2), Each(SizeIs(1020))));
  EXPECT_EQ(log->Count("Debug Truncating payload from 2000 bytes to 1020 bytes."), 2u);
}

TEST_F(UDPDestination, ReceiveThrows) {
  char byte = 0;
  try {
    socket.Receive(&byte, 1, 0);
    FAIL() << "nothing was thrown";
  } catch (const WindowsAgentCommon::OperationNotSupportedException& exception) {
    EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::UDPSocket::Receive");
    EXPECT_EQ(exception.GetSourceFile(), "UDPSocket");
  }
}

TEST_F(UDPDestination, AnIPv6AddressIsRefusedInPlainWords) {
  socket.Initialize({{"TargetAddress", "::1"}});
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 10047);
  EXPECT_EQ(Send("x"), -1);
  EXPECT_THAT(log->Lines(),
              ElementsAre("Debug UDPSocket addr:::1 port:514 maxPayload:1020 builder:SyslogPayloadBuilder",
                          "Error Unable to open UDPSocket ::1:514 errorno 10047",
                          "Error UDP destinations are IPv4 only, and ::1 has only IPv6 addresses."));
}

TEST_F(UDPDestination, AnUnknownHostIsToldOf) {
  socket.Initialize({{"TargetAddress", "no-such-host.invalid"}});
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_THAT(socket.GetLastResultCode(), testing::AnyOf(11001, 11002, 11003));
  EXPECT_EQ(log->Lines().back(), WindowsAgentCommon::Format("Error Unable to open UDPSocket %s:514 errorno %d",
                                                            "no-such-host.invalid", socket.GetLastResultCode()));
}

TEST_F(UDPDestination, CloseEndsItAndConnectOpensItAgain) {
  LoopbackUdpServer server;
  socket.Initialize(Target(server.Port(), false));
  socket.Close();
  socket.Close();
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("x"), -1);
  EXPECT_TRUE(socket.Connect());
  EXPECT_EQ(Send("one"), 3);
  EXPECT_THAT(server.WaitForDatagrams(1), ElementsAre("one"));
}

TEST_F(UDPDestination, APayloadThatNoDatagramHoldsDoesNotHoldUpTheQueue) {
  LoopbackUdpServer server;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), true);
  parameters.emplace("MaxPayloadSize", "100000");
  socket.Initialize(parameters);
  EXPECT_EQ(Send(std::string(70000, 'x')), 70000);
  EXPECT_EQ(Send("behind"), 6);
  EXPECT_THAT(server.WaitForDatagrams(1), ElementsAre("behind"));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(socket.GetBytesDropped(), 70000u);
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
}

TEST_F(UDPDestination, APayloadThatNoDatagramHoldsIsRefusedWithItsNumber) {
  LoopbackUdpServer server;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("MaxPayloadSize", "100000");
  socket.Initialize(parameters);
  EXPECT_EQ(Send(std::string(70000, 'x')), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10040);
}

/// A UDP socket whose sends and look-ups end as the test has written down, on a clock that the test sets.
class ScriptedUDPSocket : public UDPSocket {
 public:
  ScriptedUDPSocket() : UDPSocket(Services()) {}
  // What it is scripted with goes before the socket does.
  ~ScriptedUDPSocket() override { EndLife(); }

  FakeSocketTime& Time() { return static_cast<FakeSocketTime&>(*m_state.m_services.m_pTime); }

  void NextSends(std::initializer_list<DatagramOutcome> outcomes) {
    const std::lock_guard lock(m_mutex);
    m_outcomes.insert(m_outcomes.end(), outcomes);
  }
  /// What sends do when nothing is written down for them; without an error they take all.
  void OtherwiseSend(SocketError error) {
    const std::lock_guard lock(m_mutex);
    m_otherwise = error;
  }
  void Resolve(SocketError error) {
    const std::lock_guard lock(m_mutex);
    m_resolveError = error;
  }

  /// Called at the start of each send, in the sending thread, without a lock.
  void OnSend(std::function<void()> callback) { m_onSend = std::move(callback); }

  /// No send thread can be started.
  void FailThreads() { m_bThreadsFail = true; }
  int activate(long flags, int threads, int force, long priority, int group, ACE_Task_Base* task,
               ACE_hthread_t handles[], void* stacks[], size_t stackSizes[], ACE_thread_t ids[],
               const char* names[]) override {
    return m_bThreadsFail ? -1
                          : UDPSocket::activate(flags, threads, force, priority, group, task, handles, stacks,
                                                stackSizes, ids, names);
  }

  /// As from a resolver that knows the name, and no address.
  void ResolveToNothing() {
    const std::lock_guard lock(m_mutex);
    m_bWithoutAddress = true;
  }

  std::vector<std::string> Sent() const {
    const std::lock_guard lock(m_mutex);
    return m_sent;
  }
  int Calls() const {
    const std::lock_guard lock(m_mutex);
    return m_calls;
  }
  int Resolves() const {
    const std::lock_guard lock(m_mutex);
    return m_resolves;
  }

 private:
  VaroCommunicationAPI::SocketServices Services() {
    VaroCommunicationAPI::SocketServices services;
    services.m_pTime = std::make_shared<FakeSocketTime>();
    services.m_resolveHost = [this](const std::wstring&, std::uint32_t port, AddressFamily family,
                                    const std::function<bool()>&) {
      const std::lock_guard lock(m_mutex);
      if (family == AddressFamily::IPv4) ++m_resolves;
      ResolvedHost target;
      target.m_error = m_resolveError;
      if (!m_resolveError && !m_bWithoutAddress)
        target.m_addresses.emplace_back(static_cast<u_short>(port), "127.0.0.1");
      return target;
    };
    services.m_sendDatagrams = [this](ACE_HANDLE, std::span<const std::span<const char>> payloads) {
      if (m_onSend) m_onSend();
      const std::lock_guard lock(m_mutex);
      if (payloads.empty()) return DatagramOutcome();
      ++m_calls;
      DatagramOutcome outcome{m_otherwise ? 0 : payloads.size(), m_otherwise};
      if (!m_outcomes.empty()) {
        outcome = m_outcomes.front();
        m_outcomes.pop_front();
        outcome.m_datagrams = std::min(outcome.m_datagrams, payloads.size());
      }
      for (const std::span<const char> payload : payloads.first(outcome.m_datagrams))
        m_sent.emplace_back(payload.begin(), payload.end());
      return outcome;
    };
    return services;
  }

  bool m_bThreadsFail = false;
  std::function<void()> m_onSend;
  mutable std::mutex m_mutex;
  std::deque<DatagramOutcome> m_outcomes;
  SocketError m_otherwise;
  SocketError m_resolveError;
  bool m_bWithoutAddress = false;
  std::vector<std::string> m_sent;
  int m_calls = 0;
  int m_resolves = 0;
};

class UDPRecovery : public testing::Test {
 protected:
  ~UDPRecovery() override { socket.Shutdown(); }

  void Initialize(bool isQueued) {
    socket.Initialize(Target(514, isQueued));
    log->Clear();
  }
  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  RecordingLogger log;
  ScriptedUDPSocket socket;
};

const std::string firstFailure =
    "Error A socket error occurred that was not a simple wouldblock (errno = 10061) for UDP connection 127.0.0.1:514 "
    "(will attempt to reconnect later).";

TEST_F(UDPRecovery, AFailureIsToldOnceAndCostsASecond) {
  Initialize(false);
  socket.OtherwiseSend(SocketError(10061));
  for (int i = 0; i < 499; ++i) EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 499u);
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_THAT(log->Lines(), ElementsAre(firstFailure));
  EXPECT_THAT(socket.Time().Pauses(), testing::AllOf(SizeIs(499), Each(1000ms)));
  EXPECT_TRUE(socket.IsOpen());
}

TEST_F(UDPRecovery, SendPayloadGivesMinusTwoForAFailure) {
  Initialize(false);
  socket.OtherwiseSend(SocketError(10061));
  EXPECT_EQ(socket.SendPayload("x", 1), -2);
}

TEST_F(UDPRecovery, TheFiveHundredthFailureReconnects) {
  Initialize(false);
  socket.OtherwiseSend(SocketError(10061));
  for (int i = 0; i < 500; ++i) Send("x");
  EXPECT_THAT(log->Lines(), ElementsAre(firstFailure, "Info Attempting reconnect for UDP connection 127.0.0.1:514...",
                                        "Info Reconnect for UDP connection 127.0.0.1:514 succeeded."));
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 0u);
  EXPECT_EQ(socket.Resolves(), 2);
}

TEST_F(UDPRecovery, AReconnectThatFailsIsToldAndLeavesItClosed) {
  Initialize(false);
  socket.OtherwiseSend(SocketError(10051));
  socket.Resolve(SocketError(11002));
  for (int i = 0; i < 500; ++i) Send("x");
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 500u);
  const std::vector<std::string> lines = log->Lines();
  ASSERT_THAT(lines, SizeIs(4));
  EXPECT_EQ(lines[1], "Info Attempting reconnect for UDP connection 127.0.0.1:514...");
  EXPECT_EQ(lines[2], "Error Unable to open UDPSocket 127.0.0.1:514 errorno 11002");
  EXPECT_EQ(lines[3], "Error Reconnect for UDP connection 127.0.0.1:514 failed (errno = 11002). Will try again later.");
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 500u);
}

TEST_F(UDPRecovery, ASuccessDoesNotResetTheCounterAndAConnectDoes) {
  Initialize(false);
  socket.NextSends({{0, SocketError(10061)}});
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(Send("y"), 1);
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 1u);
  EXPECT_TRUE(socket.Connect());
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 0u);
}

TEST_F(UDPRecovery, EveryFiveHundredthRefusedSendOpensAnewWithTheBlockingStrategy) {
  socket.Resolve(SocketError(11001));
  Initialize(false);
  for (int i = 0; i < 499; ++i) EXPECT_EQ(Send("x"), -1);
  EXPECT_THAT(log->Lines(), IsEmpty());
  socket.Resolve(ErrorNone);
  EXPECT_EQ(Send("x"), -1);
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_EQ(Send("found"), 5);
  EXPECT_THAT(socket.Sent(), ElementsAre("found"));
  EXPECT_EQ(socket.GetMessagesSubmitted(), 1u);
  EXPECT_THAT(log->Lines(), ElementsAre("Info Attempting reconnect for UDP connection 127.0.0.1:514...",
                                        "Info Reconnect for UDP connection 127.0.0.1:514 succeeded."));
}

TEST_F(UDPRecovery, EveryFiveHundredthRefusedSendOpensAnewWithTheQueuedStrategy) {
  socket.Resolve(SocketError(11001));
  Initialize(true);
  socket.Resolve(ErrorNone);
  for (int i = 0; i < 500; ++i) EXPECT_EQ(Send("x"), -1);
  ASSERT_TRUE(WaitUntil([&] { return socket.IsOpen(); }));
  EXPECT_EQ(Send("found"), 5);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("found"));
}

TEST_F(UDPRecovery, RefusedSendsAreCountedAnewAfterAConnect) {
  socket.Resolve(SocketError(11001));
  Initialize(false);
  for (int i = 0; i < 300; ++i) Send("x");
  socket.Resolve(ErrorNone);
  EXPECT_TRUE(socket.Connect());
  socket.Resolve(SocketError(11001));
  EXPECT_FALSE(socket.Connect());
  log->Clear();
  for (int i = 0; i < 499; ++i) Send("x");
  EXPECT_THAT(log->Lines(), IsEmpty());
  Send("x");
  EXPECT_EQ(log->Count("Info Attempting reconnect for UDP connection 127.0.0.1:514..."), 1u);
}

TEST_F(UDPRecovery, AReconnectOfTheQueuedStrategyIsNotRepeatedBeforeFiveHundredMore) {
  socket.Resolve(SocketError(11001));
  Initialize(true);
  for (int i = 0; i < 500; ++i) EXPECT_EQ(Send("x"), -1);
  const auto attempts = [&] { return log->Count("Info Attempting reconnect for UDP connection 127.0.0.1:514..."); };
  ASSERT_TRUE(WaitUntil([&] { return attempts() == 1; }));
  std::this_thread::sleep_for(1500ms);  // the send thread is idle once a second
  EXPECT_EQ(attempts(), 1u);
}

TEST_F(UDPRecovery, ASocketWhoseThreadCannotBeStartedStaysClosed) {
  socket.FailThreads();
  Initialize(true);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("refused"), -1);
  EXPECT_EQ(socket.GetQueueSize(), 0u);
}

TEST_F(UDPRecovery, ASocketThatItsOwnerClosedStaysClosed) {
  Initialize(false);
  socket.Close();
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(Send("x"), -1);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(socket.Resolves(), 1);
}

TEST_F(UDPRecovery, WhatIsNotTakenOfABatchIsSentAgainInOrder) {
  Initialize(true);
  // However the payloads fall into batches, of which one may hold fewer than two.
  socket.NextSends({{0, SocketError(10055)}, {2, SocketError(10055)}});
  for (const char* const text : {"a", "b", "c", "d"}) EXPECT_EQ(Send(text), 1);
  ASSERT_TRUE(WaitUntil([&] { return socket.GetMessagesSent() == 4; }));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 2u);
  EXPECT_EQ(socket.GetBytesSent(), 4u);
}

TEST_F(UDPRecovery, ASystemWithoutRoomIsWaitedForAndIsNoFailure) {
  for (const bool isQueued : {false, true}) {
    ScriptedUDPSocket waiting;
    waiting.Initialize(Target(514, isQueued));
    log->Clear();
    waiting.NextSends({{0, SocketError(10035)}, {0, SocketError(10035)}});
    EXPECT_EQ(waiting.Send("a", 1), 1);
    EXPECT_EQ(waiting.Send("b", 1), 1);
    EXPECT_EQ(waiting.Shutdown(), 0);
    EXPECT_THAT(waiting.Sent(), ElementsAre("a", "b"));
    EXPECT_EQ(waiting.GetMessagesSent(), 2u);
    EXPECT_EQ(waiting.GetConsecutiveSendFailures(), 0u);
    EXPECT_EQ(waiting.GetLastResultCode(), 0);
    EXPECT_THAT(waiting.Time().Pauses(), IsEmpty());
    EXPECT_THAT(log->Lines(), Each(testing::StartsWith("Info Thread ")));
  }
}

TEST_F(UDPRecovery, ANameWithoutAddressLeavesItClosed) {
  socket.ResolveToNothing();
  Initialize(false);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(socket.GetLastResultCode(), 11001);
}

TEST_F(UDPRecovery, AnEmptyPayloadFailsWithTheBlockingStrategy) {
  Initialize(false);
  EXPECT_EQ(Send(""), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 10022);
  EXPECT_EQ(socket.GetConsecutiveSendFailures(), 1u);
}

TEST_F(UDPRecovery, AnEmptyPayloadDoesNotHoldUpTheQueue) {
  Initialize(true);
  EXPECT_EQ(Send("before"), 6);
  EXPECT_EQ(Send(""), 0);
  EXPECT_EQ(Send("behind"), 6);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("before", "behind"));
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(socket.GetMessagesSent(), 2u);
}

/// Holds the first send of a queued socket until it is let go, and calls `then` at the start of each further one.
class HeldFirstSend {
 public:
  explicit HeldFirstSend(
      ScriptedUDPSocket& socket, std::function<void()> then = [] {}) {
    socket.OnSend([this, then] {
      if (++m_sends > 1) return then();
      m_released.get_future().wait();
    });
  }
  bool WaitUntilReached() {
    return WaitUntil([this] { return m_sends == 1; });
  }
  void Release() { m_released.set_value(); }

 private:
  std::atomic<int> m_sends{0};
  std::promise<void> m_released;
};

TEST_F(UDPRecovery, SeveralEmptyPayloadsAreEachDropped) {
  HeldFirstSend held(socket);
  Initialize(true);
  Send("first");
  ASSERT_TRUE(held.WaitUntilReached());
  for (const char* const text : {"a", "", ""}) Send(text);
  held.Release();
  EXPECT_TRUE(WaitUntil([&] { return socket.GetMessagesDropped() == 2; }));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("first", "a"));
  EXPECT_EQ(socket.GetMessagesDropped(), 2u);
}

TEST_F(UDPRecovery, AFailureBeforeAnEmptyPayloadKeepsItsNumber) {
  HeldFirstSend held(socket);
  socket.NextSends({{1, ErrorNone}, {0, SocketError(10061)}});
  Initialize(true);
  Send("first");
  ASSERT_TRUE(held.WaitUntilReached());
  for (const char* const text : {"a", ""}) Send(text);
  held.Release();
  EXPECT_TRUE(WaitUntil([&] { return socket.GetMessagesDropped() == 1; }));
  EXPECT_EQ(log->Count(firstFailure), 1u);
  EXPECT_THAT(socket.Sent(), ElementsAre("first", "a"));
}

TEST_F(UDPRecovery, ThePatienceOfAStopCountsFromTheLastDatagramThatWasTaken) {
  HeldFirstSend held(socket, [this] { socket.Time().Advance(1400ms); });
  socket.NextSends({{1, ErrorNone}, {1, SocketError(10055)}, {1, SocketError(10055)}, {1, SocketError(10055)}});
  Initialize(true);
  Send("a");
  ASSERT_TRUE(held.WaitUntilReached());
  for (const char* const text : {"b", "c", "d", "e"}) Send(text);
  auto stopped = std::async(std::launch::async, [this] { return socket.Shutdown(); });
  ASSERT_TRUE(WaitUntil([this] { return !socket.IsOpen(); }));
  held.Release();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("a", "b", "c", "d", "e"));
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(UDPRecovery, ShutdownGivesUpWhatCannotBeSentWithinTwoSeconds) {
  ScriptedUDPSocket failing;
  failing.OtherwiseSend(SocketError(10051));
  failing.Initialize(Target(514, true));
  for (int i = 0; i < 10; ++i) EXPECT_EQ(failing.Send("x", 1), 1);
  std::thread clock([&] {
    // The patience of a stop runs on the socket's clock.
    WaitUntil([&] {
      failing.Time().Advance(100ms);
      return failing.GetMessagesDropped() == 10;
    });
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(failing.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  clock.join();
  EXPECT_EQ(failing.GetMessagesDropped(), 10u);
  EXPECT_FALSE(failing.IsOpen());
}

TEST_F(UDPRecovery, ASecondInitializeOpensAShutSocketAgain) {
  Initialize(true);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(Send("x"), -1);
  Initialize(true);
  EXPECT_EQ(Send("again"), 5);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(socket.Sent(), ElementsAre("again"));
}

TEST(UDPStop, AFailingDestinationIsNotTriedWithoutPausing) {
  RecordingLogger log;
  ScriptedUDPSocket socket;
  socket.OtherwiseSend(SocketError(10055));
  socket.Initialize(Target(514, true));
  socket.Send("x", 1);
  ASSERT_TRUE(WaitUntil([&] { return socket.Calls() > 0; }));
  std::thread stopper([&] { EXPECT_EQ(socket.Shutdown(), 0); });
  // From here on the clock of the socket stands still, so that the stop's patience lasts.
  ASSERT_TRUE(WaitUntil([&] { return !socket.IsOpen(); }));
  std::this_thread::sleep_for(20ms);
  const int before = socket.Calls();
  std::this_thread::sleep_for(300ms);
  EXPECT_LE(socket.Calls() - before, 30);  // twenty milliseconds apart; a busy machine makes them fewer
  socket.Time().Advance(2s);
  stopper.join();
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

}  // namespace
}  // namespace sorvex::test
