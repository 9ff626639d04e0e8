// The queued strategy: the queue, the send thread, batches, and the stop.
#include "ScriptedStreamSocket.h"

#include <support/LoopbackTcpServer.h>
#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <sstream>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Le;
using testing::ResultOf;

const WindowsAgentCommon::ParameterBlock queued = {{"Socket.BlockingSendStrategy", "false"}};

WindowsAgentCommon::ParameterBlock Queued(std::initializer_list<WindowsAgentCommon::ParameterBlock::value_type> more) {
  WindowsAgentCommon::ParameterBlock parameters = queued;
  parameters.insert(more);
  return parameters;
}

/// Holds the send thread at its first write until it is let go, so that payloads gather in the queue.
class Gate {
 public:
  void Attach(ScriptedStreamSocket& socket) {
    socket.OnWrite([this] {
      m_reached = true;
      std::unique_lock lock(m_mutex);
      m_changed.wait(lock, [this] { return m_bOpen; });
    });
  }
  bool WaitUntilReached() {
    return WaitUntil([this] { return m_reached.load(); });
  }
  void Open() {
    const std::lock_guard lock(m_mutex);
    m_bOpen = true;
    m_changed.notify_all();
  }

 private:
  std::atomic<bool> m_reached{false};
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bOpen = false;
};

class StreamQueue : public testing::Test {
 protected:
  ~StreamQueue() override {
    gate.Open();
    socket.Shutdown();
  }

  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }

  bool WaitForSent(std::uint32_t messages) {
    return WaitUntil([&] { return socket.GetMessagesSent() >= messages; });
  }

  /// Sends "first" alone, and "one" and "two" together in a write with this outcome; waits until all are sent.
  void SendOneAndTwoTogether(const WindowsAgentCommon::ParameterBlock& parameters, const ScriptedWrite& outcome) {
    gate.Attach(socket);
    socket.NextWrites({{}, outcome});
    socket.Initialize(parameters);
    Send("first");
    ASSERT_TRUE(gate.WaitUntilReached());
    Send("one");
    Send("two");
    gate.Open();
    ASSERT_TRUE(WaitForSent(3));
  }

  void ExpectNothingMissing(std::uint32_t refused = 0) {
    EXPECT_EQ(socket.GetMessagesSubmitted(), socket.GetMessagesSent() + socket.GetMessagesDropped() + refused);
  }

  RecordingLogger log;
  Gate gate;
  ScriptedStreamSocket socket;
};

TEST_F(StreamQueue, SendsWhatIsQueued) {
  socket.Initialize(queued);
  EXPECT_EQ(Send("hello"), 6);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.AllWritten(), "hello\n");
  EXPECT_EQ(socket.GetBytesSent(), 6u);
}

TEST_F(StreamQueue, CutsAPayloadToTheLimit) {
  socket.Initialize(queued);
  EXPECT_EQ(Send(std::string(40000, 'x')), 32001);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.AllWritten(), std::string(32000, 'x') + "\n");
  EXPECT_EQ(socket.GetMessagesTruncated(), 1u);
  EXPECT_EQ(socket.GetBytesTruncated(), 8000u);
  EXPECT_EQ(socket.GetBytesSubmitted(), 40000u);
}

TEST_F(StreamQueue, ReturnsTheLimitedLengthWithoutLineFeed) {
  socket.Initialize(Queued({{"AppendLineFeed", "false"}}));
  EXPECT_EQ(Send(std::string(40000, 'x')), 32000);
  EXPECT_EQ(Send("abc"), 3);
}

TEST_F(StreamQueue, APayloadWrittenWholeIsSentOnce) {
  socket.Initialize(queued);
  for (int i = 0; i < 10; ++i) Send(std::to_string(i));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.AllWritten(), "0\n1\n2\n3\n4\n5\n6\n7\n8\n9\n");
  EXPECT_EQ(socket.GetMessagesSent(), 10u);
}

TEST_F(StreamQueue, LogsTheStartAndTheEndOfItsThread) {
  socket.Initialize(queued);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_THAT(log->Lines(), ElementsAre("Info Thread running...", "Info Thread exiting"));
}

TEST_F(StreamQueue, OctetsAreCountedWhateverIsSaidOfLineFeeds) {
  socket.Initialize(Queued({{"Framing", "OctetCounting"}, {"AppendLineFeed", "false"}}));
  EXPECT_EQ(Send("abc"), 5);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.AllWritten(), "3 abc");
}

TEST_F(StreamQueue, AnUnknownFramingIsTheLineFeed) {
  socket.Initialize(Queued({{"Framing", "Lines"}}));
  EXPECT_EQ(Send("abc"), 4);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.AllWritten(), "abc\n");
}

TEST_F(StreamQueue, TheThreadOutlivesAWaitInVain) {
  socket.Initialize(queued);
  std::this_thread::sleep_for(1200ms);  // longer than it waits for a payload at a time
  Send("late");
  EXPECT_TRUE(WaitForSent(1));
}

TEST_F(StreamQueue, PayloadsThatGatherGoOutInOneWrite) {
  gate.Attach(socket);
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  for (int i = 0; i < 100; ++i) Send("payload " + std::to_string(i));
  gate.Open();
  ASSERT_TRUE(WaitForSent(101));
  EXPECT_EQ(socket.Written().size(), 2u);
  EXPECT_EQ(socket.GetMessagesSent(), 101u);
}

TEST_F(StreamQueue, OneWriteHoldsAtMost64KiB) {
  gate.Attach(socket);
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  const std::string payload(1023, 'x');  // 1024 with its line feed: 64 of them are 64 KiB
  for (int i = 0; i < 130; ++i) Send(payload);
  gate.Open();
  ASSERT_TRUE(WaitForSent(131));
  const std::vector<std::string> written = socket.Written();
  ASSERT_EQ(written.size(), 4u);
  EXPECT_THAT(written, Each(ResultOf([](const std::string& part) { return part.size(); }, Le(65536u))));
  EXPECT_GE(written[2].size(), 65536u - payload.size());
  // Only before the first write: the connection has been busy since.
  EXPECT_EQ(socket.PeerStateCount(), 1);
}

TEST_F(StreamQueue, APayloadLargerThanABatchGoesAlone) {
  gate.Attach(socket);
  socket.Initialize(Queued({{"MaxPayloadSize", "100000"}}));
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  Send("small");
  Send(std::string(70000, 'x'));
  Send("small");
  gate.Open();
  ASSERT_TRUE(WaitForSent(4));
  const std::vector<std::string> written = socket.Written();
  ASSERT_EQ(written.size(), 4u);
  EXPECT_EQ(written[1], "small\n");
  EXPECT_EQ(written[2].size(), 70001u);
  EXPECT_EQ(written[3], "small\n");
}

TEST_F(StreamQueue, RetriesFromTheFirstPayloadThatWasNotAccepted) {
  gate.Attach(socket);
  socket.NextWrites({{}, {7, ErrorConnectionReset}});  // the batch "one\ntwo\nthree\n" is cut within "two\n"
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  Send("one");
  Send("twoo");
  Send("three");
  gate.Open();
  ASSERT_TRUE(WaitForSent(4));
  EXPECT_THAT(socket.Written(), ElementsAre("first\n", "one\ntwo", "twoo\n", "three\n"));
  EXPECT_EQ(socket.GetMessagesSent(), 4u);
  EXPECT_EQ(socket.GetBytesSent(), 6u + 4u + 5u + 6u);
  EXPECT_EQ(socket.ConnectCount(), 2);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamQueue, APayloadAcceptedWithoutItsLineFeedIsNotResent) {
  gate.Attach(socket);
  socket.NextWrites({{}, {7, ErrorConnectionReset}});  // cut between "two" and its line feed
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  Send("one");
  Send("two");
  Send("three");
  gate.Open();
  ASSERT_TRUE(WaitForSent(4));
  EXPECT_THAT(socket.Written(), ElementsAre("first\n", "one\ntwo", "three\n"));
  EXPECT_EQ(socket.GetBytesSent(), 6u + 4u + 3u + 6u);
}

TEST_F(StreamQueue, APayloadWithoutItsLastByteIsSentAgainWithItsLength) {
  ASSERT_NO_FATAL_FAILURE(SendOneAndTwoTogether(Queued({{"Framing", "OctetCounting"}}), {9, ErrorConnectionReset}));
  EXPECT_THAT(socket.Written(), ElementsAre("5 first", "3 one3 tw", "3 two"));
  EXPECT_EQ(socket.GetBytesSent(), 7u + 5u + 5u);
}

TEST_F(StreamQueue, APayloadWithoutItsLastByteIsSentAgainWithoutFraming) {
  ASSERT_NO_FATAL_FAILURE(SendOneAndTwoTogether(Queued({{"AppendLineFeed", "false"}}), {5, ErrorConnectionReset}));
  EXPECT_THAT(socket.Written(), ElementsAre("first", "onetw", "two"));
  EXPECT_EQ(socket.GetBytesSent(), 5u + 3u + 3u);
}

TEST_F(StreamQueue, ATimeoutBetweenPayloadsKeepsTheConnection) {
  ASSERT_NO_FATAL_FAILURE(SendOneAndTwoTogether(queued, {4, ErrorWaitTimeout}));
  EXPECT_THAT(socket.Written(), ElementsAre("first\n", "one\n", "two\n"));
  EXPECT_EQ(socket.ConnectCount(), 1);
}

TEST_F(StreamQueue, AnEmptyPayloadWithoutFramingWaitsForTheConnection) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused});
  socket.Initialize(Queued({{"AppendLineFeed", "false"}}));
  EXPECT_EQ(Send(""), 0);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.ConnectCount(), 3);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
}

TEST_F(StreamQueue, RetriesOncePerSecondWhileDisconnected) {
  socket.NextConnects({ErrorConnectionRefused, ErrorConnectionRefused, ErrorNone});
  socket.Initialize(queued);
  Send("hello");
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.Time().Pauses(), std::vector<std::chrono::milliseconds>(15, 1000ms));
  EXPECT_THAT(log->Lines(),
              ElementsAre("Info Thread running...", "Debug Socket isn't connected; calling reconnect...",
                          "Warn Reconnect failed; will try again later. Reason: " + ErrorConnectionRefused.Text(),
                          "Debug Socket isn't connected; calling reconnect...", "Info Reconnect succeeded."));
}

TEST_F(StreamQueue, AFullQueueDoesNotCostAPayloadItsPlaceWhenItIsPutBack) {
  gate.Attach(socket);
  socket.NextWrites({{0, ErrorConnectionReset}});
  socket.Initialize(Queued({{"Socket.QueueHighWaterMark", "100"}, {"Socket.QueueLowWaterMark", "50"}}));
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  Send(std::string(200, 'x'));  // the queue is above its mark now
  gate.Open();
  ASSERT_TRUE(WaitForSent(2));
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(socket.AllWritten(), "first\n" + std::string(200, 'x') + "\n");
}

TEST_F(StreamQueue, AProducerIsRefusedAfterFiveSecondsOfAFullQueue) {
  gate.Attach(socket);
  socket.Initialize(Queued({{"Socket.QueueHighWaterMark", "100"}, {"Socket.QueueLowWaterMark", "50"}}));
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  ASSERT_GT(Send(std::string(200, 'x')), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Send("refused"), -1);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 4900ms);
  EXPECT_LT(waited, 8s);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 3u);
  gate.Open();
  EXPECT_EQ(socket.Shutdown(), 0);
  ExpectNothingMissing(1);
}

TEST_F(StreamQueue, QueueSizeIsInBytes) {
  gate.Attach(socket);
  socket.Initialize(queued);
  EXPECT_EQ(socket.GetQueueSize(), 0u);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  Send(std::string(100, 'x'));
  Send(std::string(200, 'x'));
  EXPECT_EQ(socket.GetQueueSize(), 300u);
  gate.Open();
}

TEST_F(StreamQueue, AHangUpBlockFromOutsideEndsTheThread) {
  socket.Initialize(queued);
  auto* const hangUp = new ACE_Message_Block(0, 137);
  ASSERT_NE(socket.putq(hangUp), -1);
  EXPECT_TRUE(WaitUntil([&] { return log->Count("Info Thread exiting") == 1; }));
}

TEST_F(StreamQueue, ShutdownWritesEverythingThatIsQueued) {
  gate.Attach(socket);
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  for (int i = 0; i < 1000; ++i) Send("payload " + std::to_string(i));
  auto stopped = std::async(std::launch::async, [&] { return socket.Shutdown(); });
  gate.Open();
  EXPECT_EQ(stopped.get(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 1001u);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
}

TEST_F(StreamQueue, ShutdownCountsWhatADeadDestinationDidNotTakeAsDropped) {
  ScriptedStreamSocket dead;
  dead.OtherwiseConnect(ErrorConnectionRefused);
  dead.Initialize(queued);
  for (int i = 0; i < 10; ++i) dead.Send("hello", 5);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dead.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(dead.GetMessagesDropped(), 10u);
  EXPECT_EQ(dead.GetBytesDropped(), 50u);
  EXPECT_EQ(dead.GetQueueSize(), 0u);
  EXPECT_THAT(log->Lines(), Contains("Info Thread exiting"));
}

TEST_F(StreamQueue, ShutdownReturnsWithTheQueueAtItsHighWaterMark) {
  ScriptedStreamSocket dead;
  dead.OtherwiseConnect(ErrorConnectionRefused);
  dead.Initialize(Queued({{"Socket.QueueHighWaterMark", "100"}, {"Socket.QueueLowWaterMark", "50"}}));
  std::atomic<int> refused{0};
  std::vector<std::thread> producers;
  for (int i = 0; i < 4; ++i) {
    producers.emplace_back([&] {
      while (dead.IsOpen()) {
        if (dead.Send("01234567890123456789", 20) == -1) ++refused;
      }
    });
  }
  ASSERT_TRUE(WaitUntil([&] { return dead.GetMessagesSubmitted() >= 9; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(dead.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  for (std::thread& producer : producers) producer.join();
  // A send that began before the stop is refused without being counted when it comes too late to be submitted.
  EXPECT_LE(dead.GetMessagesSubmitted(), dead.GetMessagesDropped() + static_cast<std::uint32_t>(refused.load()));
  EXPECT_EQ(dead.GetMessagesSent(), 0u);
}

TEST_F(StreamQueue, ShutdownReturnsMinusOneWhenTheQueueRefusesTheHangUpBlock) {
  gate.Attach(socket);
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  socket.msg_queue()->deactivate();
  EXPECT_EQ(socket.Shutdown(), -1);
  gate.Open();
  EXPECT_EQ(socket.wait(), 0);
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(StreamQueue, WhatAClosedQueueDoesNotTakeBackIsCountedAsDropped) {
  gate.Attach(socket);
  socket.NextWrites({{0, ErrorConnectionReset}});
  socket.Initialize(queued);
  Send("first");
  ASSERT_TRUE(gate.WaitUntilReached());
  socket.msg_queue()->deactivate();
  gate.Open();
  EXPECT_EQ(socket.wait(), 0);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(socket.GetBytesDropped(), 5u);
}

TEST_F(StreamQueue, ShutdownTwiceReturnsZero) {
  socket.Initialize(queued);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.Shutdown(), 0);
}

TEST_F(StreamQueue, CanBeOpenedAgainAfterShutdown) {
  socket.Initialize(queued);
  Send("one");
  ASSERT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(Send("refused"), -1);
  socket.Open(L"127.0.0.1", 514);
  EXPECT_EQ(Send("two"), 4);
  ASSERT_TRUE(WaitForSent(2));
  EXPECT_EQ(socket.AllWritten(), "one\ntwo\n");
}

TEST_F(StreamQueue, ASecondOpenStartsNoSecondThread) {
  socket.Initialize(queued);
  socket.Open(L"127.0.0.1", 514);
  EXPECT_EQ(Send("one"), 4);
  ASSERT_TRUE(WaitForSent(1));
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(log->Count("Info Thread running..."), 1u);
}

TEST_F(StreamQueue, AnIdleConnectionIsLookedAtBeforeItIsWrittenTo) {
  socket.Initialize(queued);
  Send("one");
  ASSERT_TRUE(WaitForSent(1));
  const int before = socket.PeerStateCount();
  socket.NextPeerStates({ErrorPeerClosed});
  Send("two");
  ASSERT_TRUE(WaitForSent(2));
  EXPECT_GT(socket.PeerStateCount(), before);
  EXPECT_EQ(socket.ConnectCount(), 2);
  EXPECT_EQ(socket.AllWritten(), "one\ntwo\n");
}

/// Has a payload in its queue before its send thread looks there.
class EarlyPayloadSocket : public ScriptedStreamSocket {
 public:
  int svc() override {
    EXPECT_TRUE(WaitUntil([this] { return IsOpen(); }));
    EXPECT_EQ(Send("early", 5), 6);
    return ScriptedStreamSocket::svc();
  }
};

TEST_F(StreamQueue, ANewConnectionIsLookedAtBeforeItIsWrittenTo) {
  EarlyPayloadSocket early;
  early.NextPeerStates({ErrorPeerClosed});
  early.Initialize(queued);
  EXPECT_TRUE(WaitUntil([&] { return early.GetMessagesSent() == 1; }));
  EXPECT_EQ(early.Shutdown(), 0);
  EXPECT_EQ(early.ConnectCount(), 2);
  EXPECT_EQ(early.AllWritten(), "early\n");
}

TEST_F(StreamQueue, ManyProducersLoseAndDoubleNothing) {
  socket.Initialize(queued);
  constexpr int producerCount = 8;
  constexpr int perProducer = 2000;
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      EXPECT_LE(socket.GetMessagesSent(), socket.GetMessagesSubmitted());
      static_cast<void>(socket.GetQueueSize());
      static_cast<void>(socket.GetNextReconnectTime());
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> producers;
  for (int producer = 0; producer < producerCount; ++producer) {
    producers.emplace_back([&, producer] {
      for (int i = 0; i < perProducer; ++i) Send(std::to_string(producer) + ":" + std::to_string(i));
    });
  }
  for (std::thread& producer : producers) producer.join();
  EXPECT_EQ(socket.Shutdown(), 0);
  done = true;
  reader.join();

  std::vector<int> next(producerCount, 0);
  std::istringstream lines(socket.AllWritten());
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(':');
    ASSERT_NE(colon, std::string::npos) << line;
    int& expected = next[static_cast<std::size_t>(std::stoi(line.substr(0, colon)))];
    ASSERT_EQ(std::stoi(line.substr(colon + 1)), expected) << line;
    ++expected;
  }
  EXPECT_THAT(next, testing::Each(perProducer));
}

}  // namespace
}  // namespace sorvex::test
