#include <delivery/Channel.h>

#include "FakeSocket.h"
#include "support/RecordingLogger.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using delivery::Channel;

settings::DestinationSettings Destination(const char* highWaterMark = "1000000") {
  settings::DestinationSettings destination;
  destination.parameters = {
      {"TargetAddress", "host"}, {"TargetPort", "514"}, {"Socket.QueueHighWaterMark", highWaterMark}};
  return destination;
}

WindowsAgentCommon::Event Line() {
  WindowsAgentCommon::Event event;
  event.m_strText = "line";
  return event;
}

class ChannelTest : public testing::Test {
 protected:
  void Make(const char* highWaterMark = "1000000") {
    m_pChannel = std::make_unique<Channel>(Destination(highWaterMark), m_pSocket, [this] { m_opened += 1; });
  }
  void MakeOpen(const char* highWaterMark = "1000000") {
    Make(highWaterMark);
    ASSERT_TRUE(WaitUntil([this] { return m_opened == 1; }));
  }

  std::shared_ptr<FakeSocket> m_pSocket = std::make_shared<FakeSocket>();
  std::atomic<int> m_opened{0};
  std::unique_ptr<Channel> m_pChannel;
};

TEST_F(ChannelTest, OpensWithItsParameters) {
  MakeOpen();
  EXPECT_EQ(m_pSocket->Parameters(), Destination().parameters);
  EXPECT_TRUE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, TriesAgainUntilItIsOpen) {
  m_pSocket->FailToOpen(1);
  MakeOpen();
  EXPECT_EQ(m_pSocket->OpenAttempts(), 2);
  EXPECT_TRUE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, SurvivesASocketThatThrows) {
  const RecordingLogger log;
  m_pSocket->FailToOpen(1, "no certificate");
  Make();
  EXPECT_FALSE(m_pChannel->HasRoom());
  ASSERT_TRUE(WaitUntil([this] { return m_opened == 1; }));
  EXPECT_THAT(log->Lines(),
              testing::ElementsAre("Error The destination tcp://host:514 cannot be opened: no certificate"));
}

/// Nobody would ask a second time.
TEST_F(ChannelTest, HasRoomWhenItSaysThatItIsOpen) {
  std::promise<void> isCalled;
  std::promise<void> isChecked;
  m_pChannel = std::make_unique<Channel>(Destination(), m_pSocket, [&] {
    isCalled.set_value();
    isChecked.get_future().wait_for(patience);
  });
  ASSERT_EQ(isCalled.get_future().wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(m_pChannel->HasRoom());
  isChecked.set_value();
  m_pChannel.reset();
}

TEST_F(ChannelTest, ClosesWhileItStillTriesToOpen) {
  m_pSocket->FailToOpen(std::numeric_limits<int>::max());
  Make();
  ASSERT_TRUE(WaitUntil([this] { return m_pSocket->OpenAttempts() > 0; }));
  m_pChannel.reset();
  EXPECT_FALSE(m_pSocket->IsOpen());
}

TEST_F(ChannelTest, HasNoRoomWhileItsSocketIsBeingOpened) {
  m_pSocket->HoldOpening();
  Make();
  m_pSocket->LetOpen();
  ASSERT_TRUE(WaitUntil([this] { return m_pSocket->IsOpen(); }));
  EXPECT_FALSE(m_pChannel->HasRoom());
  m_pSocket->LetOpeningEnd();
  ASSERT_TRUE(WaitUntil([this] { return m_opened == 1; }));
  EXPECT_TRUE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, ClosesASocketThatIsOpenedAfterItsShutdown) {
  m_pSocket->HoldOpening();
  Make();
  ASSERT_TRUE(WaitUntil([this] { return m_pSocket->OpenAttempts() == 1; }));
  m_pChannel->BeginClose();
  ASSERT_TRUE(WaitUntil([this] { return m_pSocket->Shutdowns() > 0; }));
  EXPECT_FALSE(m_pChannel->IsClosed());
  m_pSocket->LetOpeningEnd();
  ASSERT_TRUE(WaitUntil([this] { return m_pChannel->IsClosed(); }));
  EXPECT_FALSE(m_pSocket->IsOpen());
}

TEST_F(ChannelTest, HasNoRoomOnceItCloses) {
  MakeOpen();
  m_pSocket->HangInShutdown();
  m_pChannel->BeginClose();
  EXPECT_FALSE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, HasNoRoomOnceItsSocketIsClosed) {
  MakeOpen();
  m_pSocket->Shutdown();
  EXPECT_FALSE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, HasRoomForOneEventHoweverLowTheMarkIs) {
  MakeOpen("1");
  EXPECT_TRUE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, EmptyLineIsSubmittedToo) {
  MakeOpen();
  EXPECT_TRUE(m_pChannel->Submit({}));
  EXPECT_EQ(m_pChannel->GetStatistics().submitted, 1u);
}

TEST_F(ChannelTest, HasRoomForASixteenthOfTheMarkInEvents) {
  MakeOpen("2000");
  for (int i = 0; i < 125; ++i) ASSERT_TRUE(m_pChannel->HasRoom() && m_pChannel->Submit(Line())) << i;
  EXPECT_FALSE(m_pChannel->HasRoom());
  m_pSocket->Deliver(1);
  EXPECT_TRUE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, HasRoomBelowTheMark) {
  m_pSocket->SetLineSize(400);
  MakeOpen("1600");
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(m_pChannel->HasRoom() && m_pChannel->Submit(Line())) << i;
  EXPECT_FALSE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, DoneAreThoseSentAndThoseDroppedBeforeItCloses) {
  MakeOpen();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(m_pChannel->Submit(Line()));
  EXPECT_EQ(m_pChannel->Done(), 0u);
  m_pSocket->Deliver(1);
  m_pSocket->Drop(1);
  EXPECT_EQ(m_pChannel->Done(), 2u);
  m_pSocket->DeliverAtShutdown(1);
  delivery::CloseChannels({m_pChannel.get()}, 20s);
  EXPECT_EQ(m_pSocket->GetMessagesDropped(), 3u);
  EXPECT_EQ(m_pChannel->Done(), 3u);
  EXPECT_FALSE(m_pChannel->HasRoom());
}

TEST_F(ChannelTest, RefusedEventsAreNotSubmitted) {
  MakeOpen();
  m_pSocket->Refuse(true);
  EXPECT_FALSE(m_pChannel->Submit(Line()));
  EXPECT_EQ(m_pChannel->GetStatistics().submitted, 0u);
}

TEST_F(ChannelTest, ClosingEndsByForceAfterItsPatience) {
  MakeOpen();
  // What the first call ends may start again just after.
  m_pSocket->HangInShutdown(3);
  delivery::CloseChannels({m_pChannel.get()}, 0ms);
  EXPECT_TRUE(m_pChannel->IsClosed());
}

TEST_F(ChannelTest, ClosingIsLeftAloneWithinItsPatience) {
  MakeOpen();
  m_pSocket->HangInShutdown();
  std::thread ending([this] {
    EXPECT_TRUE(WaitUntil([this] { return m_pSocket->Shutdowns() == 1; }));
    // Many times as long as closing channels are left alone.
    EXPECT_FALSE(WaitUntil([this] { return m_pSocket->Closes() > 0; }, 100ms));
    m_pSocket->LetShutdownEnd();
  });
  delivery::CloseChannels({m_pChannel.get()}, 1h);
  ending.join();
  EXPECT_EQ(m_pSocket->Closes(), 0);
}

TEST_F(ChannelTest, ChannelsCloseAtTheSameTime) {
  MakeOpen();
  const auto otherSocket = std::make_shared<FakeSocket>();
  Channel other(Destination(), otherSocket, [] {});
  m_pSocket->HangInShutdown();
  otherSocket->HangInShutdown();
  std::thread ending([&] {
    EXPECT_TRUE(WaitUntil([&] { return m_pSocket->Shutdowns() > 0 && otherSocket->Shutdowns() > 0; }));
    m_pSocket->LetShutdownEnd();
    otherSocket->LetShutdownEnd();
  });
  delivery::CloseChannels({m_pChannel.get(), &other}, 1h);
  ending.join();
}

TEST_F(ChannelTest, DestructionDoesNotWaitForTheQueue) {
  MakeOpen();
  m_pSocket->HangInShutdown();
  m_pChannel.reset();
  EXPECT_GE(m_pSocket->Closes(), 1);
}

TEST_F(ChannelTest, StatisticsAddUp) {
  MakeOpen();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(m_pChannel->Submit(Line()));
  m_pSocket->Deliver(2);
  m_pSocket->Drop(1);
  const delivery::ChannelStatistics statistics = m_pChannel->GetStatistics();
  EXPECT_EQ(statistics.url, "tcp://host:514");
  EXPECT_EQ(statistics.submitted, 5u);
  EXPECT_EQ(statistics.sent, 2u);
  EXPECT_EQ(statistics.dropped, 1u);
  EXPECT_EQ(statistics.queued, 2u);
  EXPECT_EQ(statistics.truncated, 3u);
  EXPECT_TRUE(statistics.isConnected);
  m_pSocket->Disconnect();
  EXPECT_FALSE(m_pChannel->GetStatistics().isConnected);
}

TEST_F(ChannelTest, SaysSinceWhenItHasBeenConnected) {
  const auto socket = std::make_shared<FakeTcpSocket>();
  Channel channel(Destination(), socket, [] {});
  ASSERT_TRUE(WaitUntil([&] { return socket->IsConnected(); }));
  EXPECT_EQ(channel.GetStatistics().connectedSince, std::chrono::system_clock::from_time_t(300));
  socket->Disconnect();
  EXPECT_EQ(channel.GetStatistics().connectedSince, std::nullopt);
}

TEST(WideCounter, GoesOnWhereTheCounterWraps) {
  delivery::WideCounter counter;
  EXPECT_EQ(counter.Follow(0xFFFFFFFF), 0xFFFFFFFFu);
  EXPECT_EQ(counter.Follow(1), 0x100000001u);
  EXPECT_EQ(counter.Follow(1), 0x100000001u);
}

}  // namespace
}  // namespace sorvex::test
