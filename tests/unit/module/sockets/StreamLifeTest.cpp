// The life of a destination socket: opening, stopping and closing from several threads, in every order that matters.
#include "ScriptedStreamSocket.h"

#include <support/LoopbackTcpServer.h>
#include <support/RecordingLogger.h>

#include <host/SystemError.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::ElementsAre;
using VaroCommunicationAPI::SocketLife;

const WindowsAgentCommon::ParameterBlock queued = {{"Socket.BlockingSendStrategy", "false"}};

/// A point that a thread reaches and does not pass before it is opened.
class Latch {
 public:
  void Pass() {
    m_reached.set_value();
    m_opened.get_future().wait();
  }
  bool WaitUntilReached() { return m_reached.get_future().wait_for(patience) == std::future_status::ready; }
  void Open() { m_opened.set_value(); }

 private:
  std::promise<void> m_reached;
  std::promise<void> m_opened;
};

class StreamLife : public testing::Test {
 protected:
  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  /// Opens a queued socket whose send thread is held at the write of "first".
  void HoldFirstWrite() {
    socket.OnWrite([this] {
      if (!m_bHeld.exchange(true)) write.Pass();
    });
    socket.Initialize(queued);
    ASSERT_EQ(Send("first"), 6);
    ASSERT_TRUE(write.WaitUntilReached());
  }

  /// Shuts down in a thread of its own; the stop has begun when this returns.
  std::future<int> BeginShutdown() {
    auto result = std::async(std::launch::async, [this] { return socket.Shutdown(); });
    EXPECT_TRUE(WaitUntil([this] { return socket.IsStopping(); }));
    return result;
  }

  RecordingLogger log;
  Latch write;
  ScriptedStreamSocket socket;

 private:
  std::atomic<bool> m_bHeld{false};
};

TEST_F(StreamLife, TwoShutdownsAtOnceBothReturnAndDeliver) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  Send("second");
  std::future<int> first = BeginShutdown();
  std::future<int> second = std::async(std::launch::async, [this] { return socket.Shutdown(); });
  write.Open();
  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "first\nsecond\n");
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
  EXPECT_EQ(socket.FinishCount(), 1);
}

TEST_F(StreamLife, AShutdownDuringAnotherWaitsForIt) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  std::future<int> first = BeginShutdown();
  std::future<int> second = std::async(std::launch::async, [this] { return socket.Shutdown(); });
  EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
  write.Open();
  EXPECT_EQ(second.get(), 0);
  EXPECT_FALSE(socket.IsConnected());
  first.get();
}

TEST_F(StreamLife, AHangUpFromOutsideAndAShutdownEndTheThreadOnce) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  ASSERT_NE(socket.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  std::future<int> stopped = BeginShutdown();
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "first\n");
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(StreamLife, WhatStandsBehindAHangUpFromOutsideIsDropped) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  ASSERT_NE(socket.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  Send("behind");
  write.Open();
  ASSERT_TRUE(WaitUntil([&] { return log->Count("Info Thread exiting") == 1; }));
  EXPECT_EQ(socket.AllWritten(), "first\n");
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, AShutdownAfterAHangUpFromOutsideFindsNothingToDo) {
  socket.Initialize(queued);
  ASSERT_NE(socket.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  ASSERT_TRUE(WaitUntil([&] { return log->Count("Info Thread exiting") == 1; }));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_FALSE(socket.IsOpen());
}

TEST_F(StreamLife, ABlockBehindTheHangUpOfAShutdownIsDropped) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  Send("second");
  std::future<int> stopped = BeginShutdown();
  auto* const late = new ACE_Message_Block(4);
  late->copy("late", 4);
  ASSERT_NE(socket.putq(late), -1);
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "first\nsecond\n");
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, EveryPayloadOfProducersThatAStopSurprisesIsSentOrRefused) {
  // The stop comes at any point of a producer's call.
  for (int round = 0; round < 20; ++round) {
    ScriptedStreamSocket stopped;
    stopped.Initialize(queued);
    std::vector<std::future<std::uint32_t>> producers;
    for (int i = 0; i < 4; ++i) {
      producers.push_back(std::async(std::launch::async, [&stopped] {
        std::uint32_t accepted = 0;
        while (stopped.Send("x", 1) > 0) ++accepted;
        return accepted;
      }));
    }
    ASSERT_TRUE(WaitUntil([&] { return stopped.GetMessagesSent() > 0; }));
    EXPECT_EQ(stopped.Shutdown(), 0);
    std::uint32_t accepted = 0;
    for (std::future<std::uint32_t>& producer : producers) accepted += producer.get();
    EXPECT_EQ(stopped.GetMessagesSent(), accepted);
    EXPECT_EQ(stopped.GetMessagesDropped(), 0u);
  }
}

TEST_F(StreamLife, ASocketWhoseThreadCannotBeStartedStaysClosed) {
  socket.FailNextThread();
  socket.Initialize(queued);
  EXPECT_EQ(log->Count("Error The send thread could not be started: " + WindowsAgentCommon::GetLastErrorText(EAGAIN)),
            1u);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("refused"), -1);
  EXPECT_EQ(socket.GetQueueSize(), 0u);
  socket.Open(L"127.0.0.1", 514);
  EXPECT_GT(Send("taken"), 0);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.AllWritten(), "taken\n");
}

TEST_F(StreamLife, ASocketWhoseThreadCannotBeStartedAgainTakesNothing) {
  socket.Initialize(queued);
  ASSERT_NE(socket.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  ASSERT_TRUE(WaitUntil([&] { return log->Count("Info Thread exiting") == 1; }));
  socket.FailNextThread();
  socket.Open(L"127.0.0.1", 514);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("refused"), -1);
  EXPECT_TRUE(socket.msg_queue()->deactivated());
}

/// Its first send thread has done everything when it comes to the latch.
class LingeringSocket : public ScriptedStreamSocket {
 public:
  int svc() override {
    const int result = ScriptedStreamSocket::svc();
    if (!m_bLingered.exchange(true)) end.Pass();
    return result;
  }

  Latch end;

 private:
  std::atomic<bool> m_bLingered{false};
};

TEST_F(StreamLife, AnOpenWaitsForThePreviousThreadToReturn) {
  LingeringSocket lingering;
  lingering.Initialize(queued);
  ASSERT_NE(lingering.putq(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)), -1);
  ASSERT_TRUE(lingering.end.WaitUntilReached());
  auto opened = std::async(std::launch::async, [&] { lingering.Open(L"127.0.0.1", 514); });
  EXPECT_EQ(opened.wait_for(20ms), std::future_status::timeout);
  lingering.end.Open();
  opened.get();
  EXPECT_EQ(lingering.Send("one", 3), 4);
  EXPECT_EQ(lingering.Shutdown(), 0);
  EXPECT_EQ(lingering.AllWritten(), "one\n");
}

TEST_F(StreamLife, ASocketIsClosedFromTheBeginOfItsNextInitialize) {
  Latch blocked;
  socket.Initialize({});
  socket.OnWrite([&] { blocked.Pass(); });
  auto sent = std::async(std::launch::async, [this] { return Send("one"); });
  ASSERT_TRUE(blocked.WaitUntilReached());
  auto initialized = std::async(std::launch::async, [this] { socket.Initialize({}); });
  ASSERT_TRUE(WaitUntil([this] { return socket.IsStopping(); }));
  EXPECT_FALSE(socket.IsOpen());
  blocked.Open();
  EXPECT_EQ(sent.get(), 4);
  initialized.get();
  EXPECT_TRUE(socket.IsOpen());
}

TEST_F(StreamLife, AnInitializeFinishesTheConnectionThoughTheQueueIsClosed) {
  socket.Initialize(queued);
  socket.msg_queue()->deactivate();
  socket.Initialize(queued);
  EXPECT_EQ(socket.FinishCount(), 1);
  EXPECT_EQ(Send("one"), 4);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.AllWritten(), "one\n");
}

TEST_F(StreamLife, AnOpenDuringAShutdownDoesNothing) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  std::future<int> stopped = BeginShutdown();
  socket.Open(L"127.0.0.1", 514);
  EXPECT_FALSE(socket.Connect());
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.ConnectCount(), 1);
  EXPECT_EQ(socket.thr_count(), 0u);
}

TEST_F(StreamLife, AShutdownWhileOpenConnectsLeavesNeitherThreadNorConnection) {
  Latch connect;
  socket.OnConnect([&] {
    connect.Pass();
    return SocketError();
  });
  auto opened = std::async(std::launch::async, [this] { socket.Initialize(queued); });
  ASSERT_TRUE(connect.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  connect.Open();
  EXPECT_EQ(stopped.get(), 0);
  opened.get();
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.thr_count(), 0u);
  EXPECT_EQ(log->Count("Info Thread running..."), 0u);
}

TEST_F(StreamLife, AShutdownWaitsForASendOfTheBlockingStrategy) {
  Latch blocked;
  socket.Initialize({});
  socket.OnWrite([&] { blocked.Pass(); });
  auto sent = std::async(std::launch::async, [this] { return Send("one"); });
  ASSERT_TRUE(blocked.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  EXPECT_EQ(Send("two"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 1u);
  EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
  blocked.Open();
  EXPECT_EQ(sent.get(), 4);
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "one\n");
}

TEST_F(StreamLife, ASocketOfTheBlockingStrategySendsAgainAfterAShutdown) {
  socket.Initialize({});
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_EQ(Send("one"), 4);
  EXPECT_EQ(socket.ConnectCount(), 2);
}

TEST_F(StreamLife, AFailedSendAfterAShutdownPausesAsEver) {
  socket.Initialize({});
  socket.Shutdown();
  socket.NextConnects({ErrorConnectionRefused});
  EXPECT_EQ(Send("one"), -1);
  EXPECT_THAT(socket.Time().Pauses(), ElementsAre(1000ms));
}

TEST_F(StreamLife, ConnectAfterAShutdownOfTheQueueConnects) {
  socket.Initialize(queued);
  ASSERT_EQ(socket.Shutdown(), 0);
  EXPECT_TRUE(socket.Connect());
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("refused"), -1);
}

TEST_F(StreamLife, InitializeToTheBlockingStrategyEndsTheThread) {
  socket.Initialize(queued);
  EXPECT_EQ(Send("one"), 4);
  socket.Initialize({});
  EXPECT_EQ(socket.thr_count(), 0u);
  EXPECT_EQ(Send("two"), 4);
  EXPECT_EQ(socket.AllWritten(), "one\ntwo\n");
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(StreamLife, DestructionWithoutShutdownDeliversAndEndsTheThread) {
  auto forgotten = std::make_unique<ScriptedStreamSocket>();
  forgotten->Initialize(queued);
  std::atomic<int> writes{0};
  forgotten->OnWrite([&] { ++writes; });
  forgotten->Send("one", 3);
  forgotten.reset();
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(StreamLife, DestructionWithAClosedQueueEndsTheThread) {
  auto forgotten = std::make_unique<ScriptedStreamSocket>();
  forgotten->Initialize(queued);
  forgotten->msg_queue()->deactivate();
  forgotten.reset();
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(StreamLife, AStopFinishesTheStreamBeforeItCloses) {
  for (const char* const strategy : {"true", "false"}) {
    ScriptedStreamSocket destination;
    destination.Initialize({{"Socket.BlockingSendStrategy", strategy}});
    EXPECT_EQ(destination.Shutdown(), 0);
    EXPECT_EQ(destination.FinishCount(), 1) << strategy;
    EXPECT_EQ(destination.CloseCount(), 1) << strategy;
  }
}

TEST_F(StreamLife, CloseAndReconnectDoNotWaitForThePeer) {
  socket.Initialize({});
  socket.Connect();
  socket.Close();
  EXPECT_EQ(socket.FinishCount(), 0);
  EXPECT_EQ(socket.CloseCount(), 2);
}

/// The connects of a socket, of which the second is held; all but those from `firstAccepted` on are refused.
class HeldConnects {
 public:
  HeldConnects(ScriptedStreamSocket& socket, int firstAccepted) {
    socket.OnConnect([this, firstAccepted] {
      const int number = ++m_count;
      if (number == 2) second.Pass();
      return number >= firstAccepted ? SocketError() : ErrorConnectionRefused;
    });
  }
  int Count() const { return m_count; }

  Latch second;

 private:
  std::atomic<int> m_count{0};
};

TEST_F(StreamLife, AStopMakesOneLastAttemptThatIsNotDue) {
  HeldConnects connects(socket, 3);
  socket.Initialize(queued);
  Send("one");
  ASSERT_TRUE(connects.second.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  connects.second.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "one\n");
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamLife, AStopMakesNoMoreThanOneAttempt) {
  HeldConnects connects(socket, 100);
  socket.Initialize(queued);
  Send("one");
  ASSERT_TRUE(connects.second.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  connects.second.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(connects.Count(), 3);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, AStopMakesNoMoreThanOneAttemptForAllWhoSend) {
  HeldConnects connects(socket, 100);
  socket.Initialize({});
  std::vector<std::future<std::int32_t>> sends;
  for (int i = 0; i < 3; ++i) sends.push_back(std::async(std::launch::async, [this] { return Send("x"); }));
  ASSERT_TRUE(connects.second.WaitUntilReached());
  ASSERT_TRUE(WaitUntil([this] { return socket.GetMessagesSubmitted() == 3; }));
  std::future<int> stopped = BeginShutdown();
  connects.second.Open();
  for (std::future<std::int32_t>& send : sends) EXPECT_EQ(send.get(), -1);
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(connects.Count(), 3);
}

TEST_F(StreamLife, AStopThatGivesUpFinishesNothing) {
  socket.OnWrite([this] {
    write.Pass();
    socket.Time().Advance(2s);
  });
  socket.NextWrites({{0, ErrorWaitTimeout}});
  socket.Initialize(queued);
  ASSERT_EQ(Send("one"), 4);
  ASSERT_TRUE(write.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.FinishCount(), 0);
  EXPECT_EQ(socket.CloseCount(), 1);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, LostConnectionsAreMadeAgainDuringAStop) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  Send("second");
  socket.NextWrites({{{}, ErrorNone}, {0, ErrorConnectionReset}, {0, ErrorConnectionReset}});
  std::future<int> stopped = BeginShutdown();
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.ConnectCount(), 3);
  EXPECT_EQ(socket.AllWritten(), "first\nsecond\n");
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamLife, ThePatienceOfAStopCountsFromWhatThePeerTookLast) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  std::vector<bool> answers;
  socket.OnWrite([&] {
    for (std::uint64_t taken = 1; taken <= 4; ++taken) {
      socket.SetProgress(taken);
      answers.push_back(socket.MustEndWait());
      socket.Time().Advance(1400ms);
    }
    answers.push_back(socket.MustEndWait());
    socket.Time().Advance(101ms);
    answers.push_back(socket.MustEndWait());
  });
  Send("second");
  std::future<int> stopped = BeginShutdown();
  write.Open();
  stopped.get();
  EXPECT_THAT(answers, ElementsAre(false, false, false, false, false, true));
}

TEST_F(StreamLife, AStopEndsThoughThePeerTakesPartOfAPayloadAgainAndAgain) {
  constexpr int enough = 50;
  std::atomic<int> writes{0};
  socket.OnWrite([&] {
    const int number = ++writes;
    if (number == 1) write.Pass();
    if (number > 1) socket.Time().Advance(400ms);
    socket.NextWrites({number > enough ? ScriptedWrite{} : ScriptedWrite{3, ErrorConnectionReset}});
  });
  socket.Initialize(queued);
  ASSERT_EQ(Send("payload"), 8);
  ASSERT_TRUE(write.WaitUntilReached());
  std::future<int> stopped = BeginShutdown();
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_LT(writes, 7);
  EXPECT_EQ(socket.GetMessagesSent(), 0u);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, AStopGoesOnWhileEachConnectionTakesAPayload) {
  std::atomic<int> writes{0};
  socket.OnWrite([&] {
    if (++writes == 1) return write.Pass();
    socket.Time().Advance(1400ms);
  });
  for (int i = 0; i < 4; ++i) socket.NextWrites({{2, ErrorConnectionReset}});
  socket.Initialize(queued);
  ASSERT_EQ(Send("a"), 2);
  ASSERT_TRUE(write.WaitUntilReached());
  for (const char* const text : {"b", "c", "d", "e"}) ASSERT_EQ(Send(text), 2);
  std::future<int> stopped = BeginShutdown();
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.AllWritten(), "a\nb\nc\nd\ne\n");
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamLife, CloseEndsAStopThatWaits) {
  socket.OnWrite([this] {
    while (!socket.MustEndWait()) std::this_thread::sleep_for(1ms);
  });
  socket.NextWrites({{0, ErrorInterrupted}, {0, ErrorInterrupted}});
  socket.Initialize(queued);
  Send("one");
  std::future<int> stopped = BeginShutdown();
  // The clock stands still: the stop's patience does not end by itself.
  socket.Close();
  ASSERT_EQ(stopped.wait_for(patience), std::future_status::ready);
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
}

TEST_F(StreamLife, AClaimEndsWhatTheSendThreadWaitsFor) {
  std::atomic<int> waits{0};
  socket.OnWrite([&] {
    if (++waits > 1) return;
    while (!socket.MustEndWait()) socket.Time().Advance(10ms);
  });
  socket.NextWrites({{0, ErrorInterrupted}});
  socket.Initialize(queued);
  Send("one");
  ASSERT_TRUE(WaitUntil([&] { return waits == 1; }));
  EXPECT_TRUE(socket.Connect());
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.AllWritten(), "one\n");
}

TEST_F(StreamLife, AnotherThreadsConnectIsLimitedWhileThereIsASendThread) {
  socket.Initialize(queued);
  bool hasEnded = false;
  socket.OnConnect([&] {
    for (int i = 0; i < 1000 && !hasEnded; ++i) {
      socket.Time().Advance(10ms);
      hasEnded = socket.MustEndWait();
    }
    return ErrorInterrupted;
  });
  EXPECT_FALSE(socket.Connect());
  EXPECT_TRUE(hasEnded);
  socket.OnConnect({});
}

TEST_F(StreamLife, TheLimitOfAnotherThreadsConnectEndsWithIt) {
  socket.Initialize(queued);
  ASSERT_TRUE(socket.Connect());
  std::atomic<bool> mustEnd{true};
  socket.OnWrite([&] {
    socket.Time().Advance(10s);
    mustEnd = socket.MustEndWait();
  });
  Send("one");
  EXPECT_TRUE(WaitUntil([&] { return socket.GetMessagesSent() == 1; }));
  EXPECT_FALSE(mustEnd);
  EXPECT_EQ(socket.Shutdown(), 0);
}

TEST_F(StreamLife, AFirstConnectIsNotLimited) {
  bool hasEnded = false;
  socket.OnConnect([&] {
    for (int i = 0; i < 1000; ++i) {
      socket.Time().Advance(1s);
      hasEnded = hasEnded || socket.MustEndWait();
    }
    return SocketError();
  });
  socket.Initialize(queued);
  EXPECT_FALSE(hasEnded);
  EXPECT_TRUE(socket.IsConnected());
  socket.OnConnect({});
}

TEST_F(StreamLife, AProducerThatWaitsForRoomIsRefusedWhenAStopBegins) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  socket.msg_queue()->high_water_mark(100);
  socket.msg_queue()->low_water_mark(50);
  ASSERT_GT(Send(std::string(200, 'x')), 0);
  const auto begin = std::chrono::steady_clock::now();
  auto waiting = std::async(std::launch::async, [this] { return Send("waits"); });
  ASSERT_TRUE(WaitUntil([&] { return socket.GetMessagesSubmitted() == 3; }));
  std::this_thread::sleep_for(50ms);  // into the wait; earlier, the refusal is another one
  std::future<int> stopped = BeginShutdown();
  EXPECT_EQ(waiting.get(), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
  write.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 2u);
}

TEST_F(StreamLife, AFullQueueHoldsASixteenthOfItsMarkInPayloads) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  socket.msg_queue()->high_water_mark(1600);
  for (int i = 0; i < 99; ++i) ASSERT_EQ(Send("x"), 2);
  EXPECT_FALSE(socket.msg_queue()->is_full());
  ASSERT_EQ(Send("x"), 2);
  EXPECT_TRUE(socket.msg_queue()->is_full());
  write.Open();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 101u);
}

TEST_F(StreamLife, EmptyPayloadsFillAQueueAsWell) {
  ASSERT_NO_FATAL_FAILURE(HoldFirstWrite());
  socket.msg_queue()->high_water_mark(160);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(Send(""), 1);
  EXPECT_TRUE(socket.msg_queue()->is_full());
  write.Open();
  EXPECT_EQ(socket.Shutdown(), 0);
}

TEST_F(StreamLife, AnEmptyPayloadWhoseLineFeedIsNotAcceptedIsNotSent) {
  socket.Initialize({});
  socket.NextWrites({{0, ErrorConnectionReset}});
  EXPECT_EQ(Send(""), -1);
  EXPECT_EQ(socket.GetMessagesSent(), 0u);
  EXPECT_EQ(Send(""), 1);
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
}

TEST_F(StreamLife, AnEmptyPayloadThatWasNotAcceptedIsSentAgainFromTheQueue) {
  socket.NextWrites({{0, ErrorConnectionReset}});
  socket.Initialize(queued);
  Send("");
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.AllWritten(), "\n");
  EXPECT_EQ(socket.GetMessagesSent(), 1u);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamLife, ABusyConnectionIsLookedAtOnceASecond) {
  socket.Initialize({});
  for (int i = 0; i < 25; ++i) {
    Send("x");
    socket.Time().Advance(100ms);
  }
  EXPECT_EQ(socket.PeerStateCount(), 2);
}

// --- The life cycle by itself.

TEST(SocketLife, AWaitForAStopIsNotShorterThanTold) {
  SocketLife life;
  constexpr std::chrono::milliseconds duration(3);
  for (int round = 0; round < 50; ++round) {
    const auto begin = std::chrono::steady_clock::now();
    life.WaitForStop(duration);
    ASSERT_GE(std::chrono::steady_clock::now() - begin, duration);
  }
}

TEST(SocketLife, AStopWaitsForTheOperationsThatWereThere) {
  SocketLife life;
  auto operation = std::make_unique<SocketLife::Operation>(life);
  life.BeginStop(SocketLife::Service::None, {});
  auto awaited = std::async(std::launch::async, [&life] { life.AwaitOperations(); });
  EXPECT_EQ(awaited.wait_for(20ms), std::future_status::timeout);
  operation.reset();
  EXPECT_EQ(awaited.wait_for(patience), std::future_status::ready);
}

TEST(SocketLife, AnAbandonedStopDoesNotAbandonTheNext) {
  SocketLife life;
  life.BeginStop(SocketLife::Service::None, {});
  life.Abandon();
  EXPECT_TRUE(life.MustGiveUp({}, {}));
  life.EndStop(SocketLife::Service::None);
  life.BeginStop(SocketLife::Service::None, {});
  EXPECT_FALSE(life.MustGiveUp({}, {}));
}

TEST(SocketLife, NothingIsOpenedDuringAStop) {
  SocketLife life;
  life.BeginStop(SocketLife::Service::None, {});
  life.SetOpen(true);
  EXPECT_FALSE(life.IsOpen());
  life.EndStop(SocketLife::Service::None);
  life.SetOpen(true);
  EXPECT_TRUE(life.IsOpen());
}

TEST(SocketLife, NothingIsAbandonedWithoutAStop) {
  SocketLife life;
  life.Abandon();
  life.BeginStop(SocketLife::Service::None, {});
  EXPECT_FALSE(life.MustGiveUp({}, {}));
}

TEST(SocketLife, AStopEndsAWaitForIt) {
  SocketLife life;
  auto waiting = std::async(std::launch::async, [&life] { life.WaitForStop(60s); });
  EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
  life.BeginStop(SocketLife::Service::None, {});
  EXPECT_EQ(waiting.wait_for(patience), std::future_status::ready);
}

// --- Whose turn it is.

TEST(ConnectionTurn, TheFirstOfSeveralClaimsCounts) {
  using VaroCommunicationAPI::ConnectionTurn;
  const VaroCommunicationAPI::SteadyTime now{std::chrono::hours(100)};
  ConnectionTurn turn;
  auto holder = std::make_unique<ConnectionTurn::Holder>(turn);
  std::thread first([&] { const ConnectionTurn::Holder mine(turn, now); });
  ASSERT_TRUE(WaitUntil([&] { return turn.MustGiveWay(now + 251ms); }));
  std::thread second([&] { const ConnectionTurn::Holder mine(turn, now + std::chrono::hours(1)); });
  std::this_thread::sleep_for(20ms);  // the second has claimed it as well; earlier, there is only the first's
  EXPECT_TRUE(turn.MustGiveWay(now + 251ms));
  holder.reset();
  first.join();
  second.join();
}

TEST(ConnectionTurn, AClaimComesBeforeThoseWhoWaitedLongerWithoutOne) {
  using VaroCommunicationAPI::ConnectionTurn;
  const VaroCommunicationAPI::SteadyTime now{std::chrono::hours(100)};
  // Without the rule, whoever the system wakes first has it.
  for (int round = 0; round < 20; ++round) {
    ConnectionTurn turn;
    std::vector<std::string> order;
    auto holder = std::make_unique<ConnectionTurn::Holder>(turn);
    std::thread ordinary([&] {
      const ConnectionTurn::Holder mine(turn);
      order.push_back("ordinary");
    });
    std::this_thread::sleep_for(5ms);
    std::thread claiming([&] {
      const ConnectionTurn::Holder mine(turn, now);
      order.push_back("claim");
    });
    ASSERT_TRUE(WaitUntil([&] { return turn.MustGiveWay(now + 251ms); }));
    EXPECT_FALSE(turn.MustGiveWay(now + 250ms));
    holder.reset();
    ordinary.join();
    claiming.join();
    ASSERT_THAT(order, ElementsAre("claim", "ordinary"));
    EXPECT_FALSE(turn.MustGiveWay(now + std::chrono::hours(1)));
  }
}

}  // namespace
}  // namespace sorvex::test
