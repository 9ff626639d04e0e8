// What goes around payloads, and the queue that keeps them.
#include "sockets/PayloadQueue.h"

#include <support/WaitUntil.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using VaroCommunicationAPI::FramedPayloads;
using VaroCommunicationAPI::Framing;
using VaroCommunicationAPI::PayloadQueue;
using VaroCommunicationAPI::QueueGuard;
using Head = PayloadQueue::Head;
using Kind = Framing::Kind;

std::string Frame(Kind kind, std::string_view payload) {
  const Framing framing(kind);
  // What is written behind the end is seen.
  std::string framed(payload.size() + framing.AddedBytes(payload.size()), '?');
  framing.Write(payload, framed.data());
  return framed;
}

TEST(PayloadFraming, PutsALineFeedBehindThePayload) {
  EXPECT_EQ(Frame(Kind::LineFeed, "abc"), "abc\n");
  EXPECT_EQ(Frame(Kind::LineFeed, ""), "\n");
}

TEST(PayloadFraming, PutsTheLengthBeforeThePayload) {
  EXPECT_EQ(Frame(Kind::OctetCounting, "a"), "1 a");
  EXPECT_EQ(Frame(Kind::OctetCounting, "a\nb\n"), "4 a\nb\n");
  EXPECT_EQ(Frame(Kind::OctetCounting, "123456789"), "9 123456789");
  EXPECT_EQ(Frame(Kind::OctetCounting, "1234567890"), "10 1234567890");
  EXPECT_EQ(Frame(Kind::OctetCounting, std::string(99, 'x')), "99 " + std::string(99, 'x'));
  EXPECT_EQ(Frame(Kind::OctetCounting, std::string(100, 'x')), "100 " + std::string(100, 'x'));
}

TEST(PayloadFraming, KnowsNoEmptyPayloadWithALength) { EXPECT_EQ(Frame(Kind::OctetCounting, ""), ""); }

TEST(PayloadFraming, LeavesThePayloadAlone) {
  EXPECT_EQ(Frame(Kind::None, "abc"), "abc");
  EXPECT_EQ(Frame(Kind::None, ""), "");
}

TEST(PayloadFraming, APayloadIsThereWithItsOwnLastByte) {
  EXPECT_EQ(Framing(Kind::None).NeededBytes(3), 3u);
  EXPECT_EQ(Framing(Kind::LineFeed).NeededBytes(3), 3u);
  EXPECT_EQ(Framing(Kind::LineFeed).NeededBytes(0), 1u);
  EXPECT_EQ(Framing(Kind::OctetCounting).NeededBytes(3), 5u);
  EXPECT_EQ(Framing(Kind::OctetCounting).NeededBytes(0), 0u);
}

TEST(PayloadFraming, HasNames) {
  EXPECT_EQ(Framing::Parse("LineFeed"), Kind::LineFeed);
  EXPECT_EQ(Framing::Parse("OctetCounting"), Kind::OctetCounting);
  EXPECT_EQ(Framing::Parse("octetcounting"), std::nullopt);
  EXPECT_EQ(Framing::Parse(""), std::nullopt);
}

/// Tells which producers wait for room.
class WatchedQueue : public PayloadQueue {
 public:
  /// Returns when so many wait: whoever waits has let go of the lock.
  bool WaitForProducers(int producers) {
    return WaitUntil([&] {
      const QueueGuard guard(Mutex());
      return m_waiting == producers;
    });
  }

 protected:
  int wait_not_full_cond(ACE_Time_Value* deadline) override {
    ++m_waiting;
    const int result = PayloadQueue::wait_not_full_cond(deadline);
    --m_waiting;
    return result;
  }

 private:
  int m_waiting = 0;
};

class QueueOfPayloads : public testing::Test {
 protected:
  QueueOfPayloads() {
    queue.SetFraming(Framing(Kind::LineFeed));
    queue.high_water_mark(1'000'000);
    queue.low_water_mark(999'500);
  }

  bool Put(std::string_view payload) { return queue.Put(payload, 0ms); }

  bool HangUp() {
    const QueueGuard guard(queue.Mutex());
    return queue.HangUp();
  }
  bool PutHangUpBlock() { return queue.enqueue_tail(new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP)) != -1; }
  PayloadQueue::Given GiveUp() {
    const QueueGuard guard(queue.Mutex());
    return queue.GiveUp();
  }

  /// What the queue lends; "hang-up", "nothing" or "closed" when that is at its head.
  std::string Await() {
    FramedPayloads payloads;
    switch (queue.Await(0ms, payloads)) {
      case Head::Payloads:
        lengths.assign(payloads.m_lengths.begin(), payloads.m_lengths.end());
        return {payloads.m_bytes.begin(), payloads.m_bytes.end()};
      case Head::HangUp: return "hang-up";
      case Head::Nothing: return "nothing";
      case Head::Closed: return "closed";
    }
    return {};
  }

  WatchedQueue queue;
  std::vector<std::uint32_t> lengths;
};

TEST_F(QueueOfPayloads, LendsWhatGatheredInOrder) {
  EXPECT_EQ(Await(), "nothing");
  ASSERT_TRUE(Put("one"));
  ASSERT_TRUE(Put(""));
  ASSERT_TRUE(Put("three"));
  EXPECT_EQ(Await(), "one\n\nthree\n");
  EXPECT_THAT(lengths, ElementsAre(3, 0, 5));
}

TEST_F(QueueOfPayloads, KeepsWhatIsNotDoneWith) {
  for (const char* const payload : {"one", "two", "three"}) ASSERT_TRUE(Put(payload));
  Await();
  ASSERT_TRUE(Put("four"));
  queue.Remove(1);
  EXPECT_EQ(Await(), "two\nthree\nfour\n");
  queue.Remove(0);
  EXPECT_EQ(Await(), "two\nthree\nfour\n");
  queue.Remove(3);
  EXPECT_EQ(Await(), "nothing");
}

TEST_F(QueueOfPayloads, KeepsPayloadsWithoutAByteThatAreNotDoneWith) {
  queue.SetFraming(Framing(Kind::None));
  for (const char* const payload : {"a", "", ""}) ASSERT_TRUE(Put(payload));
  EXPECT_EQ(Await(), "a");
  queue.Remove(2);
  EXPECT_EQ(queue.message_count(), 1u);
  EXPECT_EQ(Await(), "");
  EXPECT_THAT(lengths, ElementsAre(0));
  queue.Remove(0);
  EXPECT_EQ(queue.message_count(), 1u);
  EXPECT_EQ(Await(), "");
  EXPECT_THAT(lengths, ElementsAre(0));
  queue.Remove(1);
  EXPECT_EQ(queue.message_count(), 0u);
  EXPECT_EQ(Await(), "nothing");
}

TEST_F(QueueOfPayloads, CountsWhatIsNotLent) {
  ASSERT_TRUE(Put("12345"));
  ASSERT_TRUE(Put("123"));
  EXPECT_EQ(queue.message_bytes(), 8u);
  EXPECT_EQ(queue.message_count(), 2u);
  Await();
  EXPECT_EQ(queue.message_bytes(), 0u);
  EXPECT_EQ(queue.message_count(), 0u);
  ASSERT_TRUE(Put("1"));
  queue.Remove(1);
  EXPECT_EQ(queue.message_bytes(), 4u);
  EXPECT_EQ(queue.message_length(), 4u);
  EXPECT_EQ(queue.message_count(), 2u);
}

TEST_F(QueueOfPayloads, LendsAChunkAtATime) {
  // 1023 bytes and a line feed: 64 of them fill a chunk.
  const std::string payload(1023, 'x');
  for (int i = 0; i < 65; ++i) ASSERT_TRUE(Put(payload));
  EXPECT_EQ(Await().size(), PayloadQueue::chunkBytes);
  queue.Remove(64);
  EXPECT_EQ(Await().size(), 1024u);
  queue.Remove(1);
  // A chunk that was used before holds what comes now and nothing else.
  ASSERT_TRUE(Put("new"));
  EXPECT_EQ(Await(), "new\n");
}

TEST_F(QueueOfPayloads, LendsAPayloadLongerThanAChunkAlone) {
  const std::string longest(PayloadQueue::chunkBytes, 'x');
  ASSERT_TRUE(Put("before"));
  ASSERT_TRUE(Put(longest));
  ASSERT_TRUE(Put("behind"));
  EXPECT_EQ(Await(), "before\n");
  queue.Remove(1);
  EXPECT_EQ(Await(), longest + "\n");
  queue.Remove(1);
  EXPECT_EQ(Await(), "behind\n");
}

TEST_F(QueueOfPayloads, AHangUpFindsRoomAndIsTheLastToGoIn) {
  queue.high_water_mark(3);
  ASSERT_TRUE(Put("one"));
  ASSERT_TRUE(queue.is_full());
  EXPECT_TRUE(HangUp());
  queue.high_water_mark(100);
  EXPECT_FALSE(Put("two"));
  EXPECT_EQ(Await(), "one\n");
  queue.Remove(1);
  EXPECT_EQ(Await(), "hang-up");
  EXPECT_EQ(Await(), "nothing");
  EXPECT_FALSE(Put("three"));
}

TEST_F(QueueOfPayloads, AHangUpRefusesProducersThatWait) {
  queue.high_water_mark(3);
  ASSERT_TRUE(Put("one"));
  auto put = std::async(std::launch::async, [this] { return queue.Put("waits", std::chrono::hours(1)); });
  ASSERT_TRUE(queue.WaitForProducers(1));
  ASSERT_TRUE(HangUp());
  EXPECT_EQ(put.wait_for(patience), std::future_status::ready);
  GiveUp();
  EXPECT_FALSE(put.get());
}

TEST_F(QueueOfPayloads, AHangUpWakesTheThreadThatWaits) {
  auto head = std::async(std::launch::async, [this] {
    FramedPayloads payloads;
    return queue.Await(std::chrono::hours(1), payloads);
  });
  EXPECT_EQ(head.wait_for(20ms), std::future_status::timeout);
  ASSERT_TRUE(HangUp());
  if (head.wait_for(patience) != std::future_status::ready) GiveUp();
  EXPECT_EQ(head.get(), Head::HangUp);
}

TEST_F(QueueOfPayloads, TakesPayloadsAgainOnceItIsOpened) {
  ASSERT_TRUE(HangUp());
  GiveUp();
  {
    const QueueGuard guard(queue.Mutex());
    queue.Open();
  }
  ASSERT_TRUE(Put("new"));
  EXPECT_EQ(Await(), "new\n");
}

TEST_F(QueueOfPayloads, AHangUpBlockKeepsItsPlace) {
  ASSERT_TRUE(Put("one"));
  ASSERT_TRUE(PutHangUpBlock());
  ASSERT_TRUE(Put("two"));
  EXPECT_EQ(Await(), "one\n");
  queue.Remove(1);
  EXPECT_EQ(Await(), "hang-up");
  EXPECT_EQ(Await(), "two\n");
}

TEST_F(QueueOfPayloads, APayloadWithoutAByteKeepsItsPlaceBehindAHangUpBlock) {
  queue.SetFraming(Framing(Kind::None));
  ASSERT_TRUE(PutHangUpBlock());
  ASSERT_TRUE(Put(""));
  EXPECT_EQ(Await(), "hang-up");
  EXPECT_EQ(Await(), "");
  EXPECT_THAT(lengths, ElementsAre(0));
}

TEST_F(QueueOfPayloads, IsFullAtItsMark) {
  queue.high_water_mark(160);
  ASSERT_TRUE(Put(std::string(159, 'x')));
  ASSERT_TRUE(Put("x"));
  EXPECT_FALSE(Put("x"));
}

TEST_F(QueueOfPayloads, WakesAProducerOnceThereIsRoom) {
  queue.high_water_mark(100);
  queue.low_water_mark(50);
  ASSERT_TRUE(Put(std::string(100, 'x')));
  auto put = std::async(std::launch::async, [this] { return queue.Put("waits", 60s); });
  ASSERT_TRUE(queue.WaitForProducers(1));
  Await();
  ASSERT_EQ(put.wait_for(patience), std::future_status::ready);
  EXPECT_TRUE(put.get());
}

TEST_F(QueueOfPayloads, WakesAProducerAtItsLowMark) {
  queue.high_water_mark(100);
  queue.low_water_mark(0);
  ASSERT_TRUE(Put(std::string(100, 'x')));
  auto put = std::async(std::launch::async, [this] { return queue.Put("waits", 60s); });
  ASSERT_TRUE(queue.WaitForProducers(1));
  Await();
  EXPECT_EQ(put.wait_for(patience), std::future_status::ready);
}

TEST_F(QueueOfPayloads, LetsAProducerWaitAboveItsLowMark) {
  queue.high_water_mark(150'000);
  queue.low_water_mark(50'000);
  // Two do not fit into one chunk.
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Put(std::string(50'000, 'x')));
  auto put = std::async(std::launch::async, [this] { return queue.Put("waits", 60s); });
  ASSERT_TRUE(queue.WaitForProducers(1));
  Await();
  EXPECT_EQ(put.wait_for(50ms), std::future_status::timeout);
  queue.Remove(1);
  Await();
  EXPECT_EQ(put.wait_for(patience), std::future_status::ready);
}

/// Is full for the first so many times that it is asked.
class QueueFullForAWhile : public PayloadQueue {
 public:
  explicit QueueFullForAWhile(int times) : m_left(times) {}

 protected:
  bool is_full_i() override { return m_left-- > 0; }

 private:
  int m_left;
};

TEST(FullQueueOfPayloads, TakesAPayloadIfThereIsRoomWhenItsWaitEnds) {
  // Asked before the wait and at its begin; there is room when the wait has timed out.
  QueueFullForAWhile queue(2);
  EXPECT_TRUE(queue.Put("x", 0ms));
}

TEST(FullQueueOfPayloads, RefusesAPayloadIfThereIsNoneWhenItsWaitEnds) {
  QueueFullForAWhile queue(3);
  EXPECT_FALSE(queue.Put("x", 0ms));
}

TEST_F(QueueOfPayloads, LetsInEveryProducerThatRoomIsThereFor) {
  queue.high_water_mark(100);
  queue.low_water_mark(50);
  ASSERT_TRUE(Put(std::string(100, 'x')));
  std::vector<std::future<bool>> puts;
  for (int i = 0; i < 4; ++i) {
    puts.push_back(std::async(std::launch::async, [this] { return queue.Put("waits", 60s); }));
    ASSERT_TRUE(queue.WaitForProducers(i + 1));
  }
  Await();
  for (std::future<bool>& put : puts) {
    ASSERT_EQ(put.wait_for(patience), std::future_status::ready);
    EXPECT_TRUE(put.get());
  }
}

TEST_F(QueueOfPayloads, WakesTheThreadThatWaits) {
  auto head = std::async(std::launch::async, [this] {
    FramedPayloads payloads;
    return queue.Await(60s, payloads);
  });
  EXPECT_EQ(head.wait_for(20ms), std::future_status::timeout);
  ASSERT_TRUE(Put("x"));
  EXPECT_EQ(head.get(), Head::Payloads);
}

TEST_F(QueueOfPayloads, GivesUpEverythingOnceAndTakesNoMore) {
  ASSERT_TRUE(Put("one"));
  ASSERT_TRUE(PutHangUpBlock());
  ASSERT_TRUE(Put("three"));
  const PayloadQueue::Given given = GiveUp();
  EXPECT_EQ(given.m_payloads, 2u);
  EXPECT_EQ(given.m_bytes, 8u);
  EXPECT_EQ(GiveUp().m_payloads, 0u);
  EXPECT_EQ(queue.message_bytes(), 0u);
  EXPECT_FALSE(Put("x"));
  EXPECT_FALSE(HangUp());
  EXPECT_EQ(Await(), "closed");
}

TEST_F(QueueOfPayloads, TakesPayloadsAsBlocks) {
  auto* const block = new ACE_Message_Block(3);
  block->copy("abc", 3);
  ASSERT_NE(queue.enqueue_tail(block), -1);
  EXPECT_EQ(Await(), "abc\n");
}

TEST_F(QueueOfPayloads, EveryProducersPayloadsKeepTheirOrder) {
  constexpr int producers = 8;
  constexpr int payloadsEach = 20'000;
  queue.high_water_mark(10'000);
  queue.low_water_mark(9'000);
  std::vector<std::future<bool>> done;
  for (int producer = 0; producer < producers; ++producer) {
    done.push_back(std::async(std::launch::async, [this, producer] {
      for (int number = 0; number < payloadsEach; ++number) {
        const std::string payload = std::to_string(producer) + std::to_string(number);
        if (!queue.Put(payload, 60s)) return false;
      }
      return true;
    }));
  }
  std::vector<int> next(producers, 0);
  int taken = 0;
  while (taken < producers * payloadsEach) {
    FramedPayloads payloads;
    ASSERT_EQ(queue.Await(60s, payloads), Head::Payloads);
    const char* text = payloads.m_bytes.data();
    // Every other one stays, so that what stays is lent again.
    const std::size_t removed = (payloads.m_lengths.size() + 1) / 2;
    for (std::size_t i = 0; i < removed; ++i) {
      const std::uint32_t length = payloads.m_lengths[i];
      const auto producer = static_cast<std::size_t>(text[0] - '0');
      ASSERT_EQ(std::string(text + 1, length - 1), std::to_string(next[producer]++));
      text += length + 1;
    }
    queue.Remove(removed);
    taken += static_cast<int>(removed);
  }
  for (std::future<bool>& each : done) EXPECT_TRUE(each.get());
  EXPECT_EQ(Await(), "nothing");
}

}  // namespace
}  // namespace sorvex::test
