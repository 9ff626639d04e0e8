#include <delivery/Delivery.h>

#include "FakeSocket.h"
#include "support/WaitUntil.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using collect::Mark;
using delivery::Delivery;
using testing::ElementsAre;
using testing::IsEmpty;

settings::DestinationSettings To(const std::string& host) {
  settings::DestinationSettings destination;
  destination.parameters = {{"TargetAddress", host}, {"TargetPort", "514"}};
  return destination;
}

class DeliveryTest : public testing::Test {
 protected:
  /// Has these destinations, all open.
  bool Use(const std::vector<std::string>& hosts) {
    std::vector<settings::DestinationSettings> destinations;
    int added = 0;
    for (const std::string& host : hosts) {
      destinations.push_back(To(host));
      added += m_current.count(host) == 0 ? 1 : 0;
    }
    m_current = {hosts.begin(), hosts.end()};
    const int expected = m_opened + added;
    const bool result = m_delivery.Change(destinations, 20s);
    EXPECT_TRUE(WaitUntil([&] { return m_opened == expected; }));
    return result;
  }

  /// Line n of source 1 ends at 10 n.
  bool Take(int number, std::uint64_t source = 1) {
    return m_delivery.Take("line " + std::to_string(number), {source, static_cast<std::uint64_t>(number) * 10});
  }

  FakeSocket& Socket(const std::string& host) { return *m_sockets.at(host); }

  std::map<std::string, std::shared_ptr<FakeSocket>> m_sockets;
  std::set<std::string> m_current;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> m_taken;
  std::atomic<int> m_opened{0};
  Delivery m_delivery{{[this](const settings::DestinationSettings& destination) {
                         const std::string host = destination.parameters.find("TargetAddress")->second;
                         if (host == "impossible") throw std::runtime_error("no socket");
                         return m_sockets[host] = std::make_shared<FakeSocket>();
                       },
                       [](std::uint64_t source) { return "source " + std::to_string(source); },
                       [this](Mark mark) { m_taken.emplace_back(mark.source, mark.position); },
                       [this] { m_opened += 1; }, "this-host"}};
};

TEST_F(DeliveryTest, TakesNothingWithoutADestination) { EXPECT_FALSE(Take(1)); }

TEST_F(DeliveryTest, EveryDestinationGetsEveryLine) {
  Use({"a", "b"});
  EXPECT_TRUE(Take(1) && Take(2));
  Socket("a").Deliver(9);
  Socket("b").Deliver(9);
  EXPECT_THAT(Socket("a").Sent(), ElementsAre("line 1", "line 2"));
  EXPECT_THAT(Socket("b").Sent(), ElementsAre("line 1", "line 2"));
}

TEST_F(DeliveryTest, EventTellsWhereItsLineComesFrom) {
  Use({"a"});
  const auto before = std::chrono::system_clock::now();
  Take(1, 1);
  Take(1, 2);
  const WindowsAgentCommon::Event event = Socket("a").LastEvent();
  EXPECT_EQ(event.m_strSource, "source 2");
  EXPECT_EQ(event.m_strHost, "this-host");
  EXPECT_GE(event.m_time, before);
}

TEST_F(DeliveryTest, TakenIsWhatAllAreDoneWith) {
  Use({"a", "b"});
  for (int number = 1; number <= 3; ++number) Take(number);
  EXPECT_FALSE(m_delivery.Settle());
  Socket("a").Deliver(3);
  EXPECT_FALSE(m_delivery.Settle());
  Socket("b").Deliver(2);
  EXPECT_TRUE(m_delivery.Settle());
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u)));
  EXPECT_TRUE(m_delivery.HasInFlight());
  Socket("b").Deliver(1);
  EXPECT_TRUE(m_delivery.Settle());
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u), std::pair(1u, 30u)));
  EXPECT_FALSE(m_delivery.HasInFlight());
}

TEST_F(DeliveryTest, EverySourceIsTold) {
  Use({"a"});
  Take(1, 1);
  Take(2, 1);
  Take(1, 2);
  Take(3, 1);
  Socket("a").Deliver(4);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u), std::pair(2u, 10u), std::pair(1u, 30u)));
}

TEST_F(DeliveryTest, WhatNoDatagramHoldsIsDoneWith) {
  Use({"a"});
  Take(1);
  Take(2);
  Socket("a").Drop(1);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 10u)));
}

TEST_F(DeliveryTest, OneWithoutRoomHoldsUpAll) {
  Use({"a", "b"});
  for (int number = 1; number <= 1'000'000 / 16; ++number) {
    ASSERT_TRUE(Take(number));
    Socket("a").Deliver(1);
  }
  EXPECT_FALSE(Take(70'000));
  EXPECT_EQ(Socket("a").GetQueueSize(), 0u);
  Socket("b").Deliver(1);
  EXPECT_TRUE(Take(70'000));
}

TEST_F(DeliveryTest, LineThatOneRefusedComesOnlyOnceToTheOther) {
  Use({"a", "b"});
  Socket("b").Refuse(true);
  EXPECT_FALSE(Take(1));
  EXPECT_FALSE(Take(1));
  Socket("b").Refuse(false);
  EXPECT_TRUE(Take(1));
  EXPECT_TRUE(Take(2));
  Socket("a").Deliver(9);
  Socket("b").Deliver(9);
  EXPECT_THAT(Socket("a").Sent(), ElementsAre("line 1", "line 2"));
  EXPECT_THAT(Socket("b").Sent(), ElementsAre("line 1", "line 2"));
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u)));
}

TEST_F(DeliveryTest, UnchangedDestinationStaysAsItIs) {
  Use({"a", "b"});
  const std::shared_ptr<FakeSocket> socket = m_sockets["a"];
  Take(1);
  EXPECT_TRUE(Use({"c", "a"}));
  EXPECT_EQ(socket, m_sockets["a"]);
  EXPECT_EQ(socket->Shutdowns(), 0);
  EXPECT_EQ(Socket("b").Shutdowns(), 1);
}

TEST_F(DeliveryTest, DestinationWithAnotherSettingIsReplaced) {
  Use({"a"});
  const std::shared_ptr<FakeSocket> former = m_sockets["a"];
  settings::DestinationSettings changed = To("a");
  changed.parameters.emplace("MaxPayloadSize", "100");
  m_delivery.Change({changed}, 20s);
  EXPECT_EQ(former->Shutdowns(), 1);
  EXPECT_NE(m_sockets["a"], former);
  EXPECT_EQ(m_delivery.GetStatistics().size(), 1u);
}

TEST_F(DeliveryTest, ClosedDestinationGetsItsTime) {
  for (const bool isEnd : {false, true}) {
    Use({"a"});
    FakeSocket& socket = Socket("a");
    socket.HangInShutdown();
    std::thread ending([&] {
      EXPECT_TRUE(WaitUntil([&] { return socket.Shutdowns() == 1; }));
      EXPECT_FALSE(WaitUntil([&] { return socket.Closes() > 0; }, 100ms));
      socket.LetShutdownEnd();
    });
    if (isEnd) {
      m_delivery.Close(1h);
    } else {
      m_delivery.Change({}, 1h);
      m_current.clear();
    }
    ending.join();
    EXPECT_EQ(socket.Closes(), 0);
  }
}

TEST_F(DeliveryTest, ClosedDestinationThatDeliversAllNeedsNoRepetition) {
  Use({"a", "b"});
  Take(1);
  Socket("b").DeliverAtShutdown(1);
  EXPECT_FALSE(Use({"a", "c"}));
  EXPECT_EQ(m_delivery.Lost(), 0u);
  Take(2);
  Socket("a").Deliver(9);
  Socket("c").Deliver(9);
  m_delivery.Settle();
  EXPECT_THAT(Socket("c").Sent(), ElementsAre("line 2"));
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u)));
}

TEST_F(DeliveryTest, WhatAClosedDestinationDidNotDeliverComesAgainForANewOne) {
  Use({"a", "b"});
  for (int number = 1; number <= 4; ++number) Take(number);
  Socket("a").Deliver(1);
  Socket("b").Deliver(1);
  Socket("b").DeliverAtShutdown(1);
  ASSERT_TRUE(Use({"a", "c"}));
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 10u)));

  // Those that were not taken come again.
  for (int number = 2; number <= 5; ++number) ASSERT_TRUE(Take(number));
  Socket("c").Deliver(9);
  EXPECT_THAT(Socket("c").Sent(), ElementsAre("line 3", "line 4", "line 5"));
  m_delivery.Settle();
  EXPECT_EQ(m_taken.size(), 1u) << "a has not delivered them";
  Socket("a").Deliver(9);
  EXPECT_THAT(Socket("a").Sent(), ElementsAre("line 1", "line 2", "line 3", "line 4", "line 5"));
  m_delivery.Settle();
  EXPECT_EQ(m_taken.back(), std::pair(std::uint64_t{1}, std::uint64_t{50}));
}

TEST_F(DeliveryTest, WhatKeptDestinationsHaveInFlightIsWaitedForAfterARepetition) {
  Use({"a", "b"});
  Take(1);
  Take(2);
  ASSERT_TRUE(Use({"a", "c"}));
  Take(1);
  Take(2);
  Socket("c").Deliver(2);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, IsEmpty());
  Socket("a").Deliver(2);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u)));
}

TEST_F(DeliveryTest, RepetitionMayComeInAnotherOrder) {
  Use({"a", "b"});
  Take(1, 1);
  Take(1, 2);
  Socket("a").Deliver(1);
  ASSERT_TRUE(Use({"a", "c"}));
  Take(1, 2);
  Take(1, 1);
  Socket("c").Deliver(2);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, IsEmpty()) << "a still has the line of source 2";
  Socket("a").Deliver(1);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(2u, 10u), std::pair(1u, 10u)));
}

TEST_F(DeliveryTest, SecondRepetitionKnowsOfTheFirst) {
  Use({"a", "b"});
  for (int number = 1; number <= 3; ++number) Take(number);
  ASSERT_TRUE(Use({"a", "c"}));
  Take(1);
  ASSERT_TRUE(Use({"a", "d"}));
  for (int number = 1; number <= 4; ++number) Take(number);
  Socket("a").Deliver(9);
  Socket("d").Deliver(9);
  EXPECT_THAT(Socket("a").Sent(), ElementsAre("line 1", "line 2", "line 3", "line 4"));
  EXPECT_THAT(Socket("d").Sent(), ElementsAre("line 1", "line 2", "line 3", "line 4"));
}

TEST_F(DeliveryTest, WhatARemovedDestinationDidNotDeliverIsLostToIt) {
  Use({"a", "b", "c"});
  for (int number = 1; number <= 3; ++number) Take(number);
  Socket("a").Deliver(3);
  Socket("b").Deliver(1);
  Socket("c").Deliver(3);
  EXPECT_FALSE(Use({"a"}));
  EXPECT_EQ(m_delivery.Lost(), 2u);
  m_delivery.Settle();
  EXPECT_EQ(m_taken.back(), std::pair(std::uint64_t{1}, std::uint64_t{30}));
  EXPECT_FALSE(Use({"a", "d"}));
  EXPECT_EQ(m_delivery.Lost(), 0u);
}

TEST_F(DeliveryTest, WithoutDestinationsLinesWaitForTheNext) {
  Use({"a"});
  Take(1);
  EXPECT_TRUE(Use({}));
  EXPECT_EQ(m_delivery.Lost(), 0u);
  EXPECT_FALSE(Take(1));
  Use({"b"});
  EXPECT_TRUE(Take(1));
  Socket("b").Deliver(1);
  m_delivery.Settle();
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 10u)));
}

TEST_F(DeliveryTest, SocketThatCannotBeMadeLeavesAllAsItWas) {
  Use({"a"});
  Take(1);
  EXPECT_THROW(m_delivery.Change({To("impossible")}, 20s), std::runtime_error);
  EXPECT_EQ(Socket("a").Shutdowns(), 0);
  EXPECT_TRUE(Take(2));
}

TEST_F(DeliveryTest, AtTheEndOnlyWhatWasDeliveredIsTaken) {
  Use({"a", "b"});
  for (int number = 1; number <= 3; ++number) Take(number);
  Socket("a").DeliverAtShutdown(3);
  Socket("b").DeliverAtShutdown(2);
  m_delivery.Close(20s);
  EXPECT_THAT(m_taken, ElementsAre(std::pair(1u, 20u)));
  EXPECT_FALSE(Take(4));
}

}  // namespace
}  // namespace sorvex::test
