// The same lines for several destinations, each with a thread of its own.
#include "OutletFixture.h"

#include <Distributor.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using agent::Batch;
using agent::Distributor;
using agent::Pace;
using testing::ElementsAre;
using testing::IsEmpty;

/// A socket's events, kept by its thread.
class Received {
 public:
  explicit Received(ScriptedTcpSocket& socket) {
    socket.onSend = [this, &socket](const WindowsAgentCommon::Event& event) {
      const std::lock_guard lock(m_mutex);
      m_events.push_back(event);
      return socket.Accept();
    };
  }
  std::vector<WindowsAgentCommon::Event> Events() const {
    const std::lock_guard lock(m_mutex);
    return m_events;
  }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const WindowsAgentCommon::Event& event : Events()) texts.push_back(event.m_strText);
    return texts;
  }

 private:
  mutable std::mutex m_mutex;
  std::vector<WindowsAgentCommon::Event> m_events;
};

class DistributorTest : public OutletsTest {
 protected:
  static std::shared_ptr<const Batch> Lines(std::string lines, std::uint64_t events) {
    return std::make_shared<const Batch>(Batch{std::move(lines), events, "a.log", std::chrono::sys_days() + 24h});
  }
  /// More than half of what one destination may be behind the others.
  static std::shared_ptr<const Batch> Large() { return Lines(std::string(3'000'000, 'x'), 1); }

  /// Holds the socket's thread in its first event, and says when it is there; afterwards it refuses none.
  static void HoldFirst(ScriptedTcpSocket& socket, Gate& gate, Gate* isHeld = nullptr) {
    socket.onSend = [&socket, &gate, isHeld](const auto&) {
      if (isHeld != nullptr) isHeld->Open();
      EXPECT_TRUE(gate.Wait());
      return socket.Accept();
    };
  }
};

TEST_F(DistributorTest, EachGetsEveryLineWithItsOrigin) {
  Received first(AddTcp());
  Received second(AddTcp());
  {
    Distributor distributor(m_outlets, Pace::Slowest);
    distributor.Distribute(Lines("one\n\ntwo\n", 3));
    distributor.Distribute(Lines("rest", 1));
  }
  EXPECT_THAT(first.Texts(), ElementsAre("one", "", "two", "rest"));
  EXPECT_THAT(second.Texts(), ElementsAre("one", "", "two", "rest"));
  const WindowsAgentCommon::Event event = first.Events().front();
  EXPECT_EQ(event.m_strSource, "a.log");
  EXPECT_EQ(event.m_strHost, "this-host");
  EXPECT_EQ(event.m_time, std::chrono::sys_days() + 24h);
  EXPECT_TRUE(m_outlets[0]->IsClosed());
  EXPECT_TRUE(m_outlets[1]->IsClosed());
}

TEST_F(DistributorTest, OpensAllAtTheSameTime) {
  Gate firstOpens;
  Gate secondOpens;
  AddTcp().onInitialize = [&] {
    firstOpens.Open();
    EXPECT_TRUE(secondOpens.Wait());
  };
  AddTcp().onInitialize = [&] {
    secondOpens.Open();
    EXPECT_TRUE(firstOpens.Wait());
  };
  const Distributor distributor(m_outlets, Pace::Slowest);
}

TEST_F(DistributorTest, ClosesAllAtTheSameTime) {
  Gate firstCloses;
  Gate secondCloses;
  AddTcp().onShutdown = [&] {
    firstCloses.Open();
    return secondCloses.Wait() ? 0 : -1;
  };
  AddTcp().onShutdown = [&] {
    secondCloses.Open();
    return firstCloses.Wait() ? 0 : -1;
  };
  { const Distributor distributor(m_outlets, Pace::Slowest); }
  EXPECT_TRUE(m_outlets[0]->HasSentAll(0));
  EXPECT_TRUE(m_outlets[1]->HasSentAll(0));
}

class DistributorPaceTest : public DistributorTest, public testing::WithParamInterface<Pace> {};

INSTANTIATE_TEST_SUITE_P(Paces, DistributorPaceTest, testing::Values(Pace::Slowest, Pace::Live),
                         [](const testing::TestParamInfo<Pace>& test) {
                           return test.param == Pace::Slowest ? "Slowest" : "Live";
                         });

TEST_P(DistributorPaceTest, SlowDestinationIsWaitedFor) {
  Gate isFree;
  ScriptedTcpSocket& slow = AddTcp();
  HoldFirst(slow, isFree);
  Received live(AddTcp());
  std::atomic<int> distributed{0};
  std::thread reading([&] {
    Distributor distributor(m_outlets, GetParam());
    for (; distributed < 3; ++distributed) distributor.Distribute(Large());
  });
  // The first two fit.
  EXPECT_TRUE(WaitUntil([&] { return live.Texts().size() == 2; }));
  EXPECT_TRUE(WaitUntil([&] { return distributed == 2; }));
  // A few times as long as full outlets are left alone.
  EXPECT_FALSE(WaitUntil([&] { return live.Texts().size() > 2; }, 200ms));
  isFree.Open();
  reading.join();
  EXPECT_EQ(slow.sent, 3u);
  EXPECT_EQ(live.Texts().size(), 3u);
  EXPECT_EQ(m_outlets[0]->Unsent(), 0u);
}

TEST_P(DistributorPaceTest, OneThatIsGivenUpIsNotWaitedFor) {
  Gate isFree;
  Gate isHeld;
  HoldFirst(AddTcp(), isFree, &isHeld);
  Received live(AddTcp());
  {
    Distributor distributor(m_outlets, GetParam());
    distributor.Distribute(Large());
    distributor.Distribute(Large());
    EXPECT_TRUE(isHeld.Wait());
    m_outlets[0]->GiveUp("asked to end");
    distributor.Distribute(Large());
    distributor.Distribute(Lines("one\ntwo\n", 2));
    isFree.Open();
  }
  EXPECT_EQ(live.Texts().size(), 5u);
  EXPECT_EQ(m_outlets[0]->Unsent(), 4u) << "only the first one was being sent";
  EXPECT_EQ(m_outlets[1]->Unsent(), 0u);
}

TEST_P(DistributorPaceTest, WithoutAnyDestinationLeftLinesAreOnlyCounted) {
  AddTcp();
  AddTcp();
  Distributor distributor(m_outlets, GetParam());
  m_outlets[0]->GiveUp("asked to end");
  m_outlets[1]->GiveUp("asked to end");
  for (int number = 0; number < 5; ++number) distributor.Distribute(Large());
  EXPECT_EQ(m_outlets[0]->Unsent(), 5u);
  EXPECT_EQ(m_outlets[1]->Unsent(), 5u);
}

TEST_P(DistributorPaceTest, OnlyALiveEndLeavesDeadDestinationsBehind) {
  AddTcp();
  AddTcp();
  { const Distributor distributor(m_outlets, GetParam()); }
  EXPECT_EQ(m_outlets[0]->HasInputEnded(), GetParam() == Pace::Live);
  EXPECT_EQ(m_outlets[1]->HasInputEnded(), GetParam() == Pace::Live);
}

TEST_F(DistributorTest, LinesThatDoNotFitIntoADeadOneAreSkippedThere) {
  Gate isFree;
  ScriptedTcpSocket& dead = AddTcp();
  HoldFirst(dead, isFree);
  Received live(AddTcp());
  {
    Distributor distributor(m_outlets, Pace::Live);
    m_outlets[0]->SetStalled(true);
    for (int number = 0; number < 3; ++number) distributor.Distribute(Large());
    distributor.Distribute(Lines("one\ntwo\n", 2));
    EXPECT_EQ(m_outlets[0]->Unsent(), 3u);
    isFree.Open();
  }
  EXPECT_EQ(dead.sent, 2u);
  EXPECT_EQ(live.Texts().size(), 5u);
  EXPECT_EQ(m_outlets[1]->Unsent(), 0u);
}

TEST_F(DistributorTest, AsLongAsAllAreDeadNothingIsSkipped) {
  Gate isFree;
  HoldFirst(AddTcp(), isFree);
  HoldFirst(AddTcp(), isFree);
  std::atomic<int> distributed{0};
  std::thread reading([&] {
    Distributor distributor(m_outlets, Pace::Live);
    for (const auto& outlet : m_outlets) outlet->SetStalled(true);
    for (; distributed < 3; ++distributed) distributor.Distribute(Large());
  });
  EXPECT_TRUE(WaitUntil([&] { return distributed == 2; }));
  EXPECT_FALSE(WaitUntil([&] { return distributed > 2; }, 200ms));
  for (const auto& outlet : m_outlets) outlet->SetStalled(false);
  isFree.Open();
  reading.join();
  EXPECT_EQ(m_outlets[0]->Unsent() + m_outlets[1]->Unsent(), 0u);
}

TEST_F(DistributorTest, FeederWorksWhileItSends) {
  Gate isFree;
  Gate isHeld;
  HoldFirst(AddTcp(), isFree, &isHeld);
  AddTcp();
  {
    Distributor distributor(m_outlets, Pace::Slowest);
    distributor.Distribute(Lines("one\n", 1));
    EXPECT_TRUE(isHeld.Wait());
    EXPECT_TRUE(First().GetActivity().isPending);
    isFree.Open();
  }
  EXPECT_FALSE(First().GetActivity().isPending);
}

TEST_F(DistributorTest, FeederHasRoomBelowFourMebibytes) {
  Gate isFree;
  HoldFirst(AddTcp(), isFree);
  agent::RoomSignal room;
  agent::Feeder feeder(First(), room);
  EXPECT_TRUE(feeder.HasRoom());
  feeder.Take(Lines(std::string(4 * 1024 * 1024 - 8192, 'x'), 1));
  EXPECT_TRUE(feeder.HasRoom());
  feeder.Take(Lines(std::string(8192, 'x'), 1));
  EXPECT_FALSE(feeder.HasRoom());
  isFree.Open();
  EXPECT_TRUE(WaitUntil([&] { return feeder.HasRoom(); }));
}

TEST(RoomSignal, NotificationBeforeTheWaitEndsIt) {
  agent::RoomSignal room;
  room.Notify();
  const auto begin = std::chrono::steady_clock::now();
  room.Wait(patience);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, patience);
}

TEST(RoomSignal, OneNotificationEndsOneWait) {
  agent::RoomSignal room;
  room.Notify();
  room.Wait(patience);
  const auto begin = std::chrono::steady_clock::now();
  room.Wait(20ms);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
}

}  // namespace
}  // namespace sorvex::test
