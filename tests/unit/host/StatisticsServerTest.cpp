#include <SorvexHost/ComponentFactory.h>
#include <host/IStatisticsServer.h>
#include <host/ServiceLookup.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

class StatisticsServer : public testing::Test {
 protected:
  StatisticsServer() {
    m_factory.RegisterBuiltInServices();
    EXPECT_TRUE(m_factory.LoadService("IStatisticsServer"));
  }

  ComponentFactory m_factory;
};

TEST_F(StatisticsServer, UnknownCounterIsZero) {
  EXPECT_EQ(GetService<IStatisticsServer>()->GetValue("never added"), 0U);
}

TEST_F(StatisticsServer, AddsToEachCounterByItself) {
  auto* statistics = GetService<IStatisticsServer>();
  statistics->Add("a", 3);
  statistics->Add("b", 5);
  statistics->Add("a", 4);
  statistics->Add("", 1);
  EXPECT_EQ(statistics->GetValue("a"), 7U);
  EXPECT_EQ(statistics->GetValue("b"), 5U);
  EXPECT_EQ(statistics->GetValue(""), 1U);
}

TEST_F(StatisticsServer, CountsBeyondThirtyTwoBits) {
  auto* statistics = GetService<IStatisticsServer>();
  statistics->Add("large", UINT32_MAX);
  statistics->Add("large", 2);
  EXPECT_EQ(statistics->GetValue("large"), 4294967297U);
}

TEST_F(StatisticsServer, LosesNothingOfManyThreads) {
  auto* statistics = GetService<IStatisticsServer>();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([statistics, i] {
      for (int j = 0; j < 500; ++j) {
        statistics->Add("shared", 1);
        statistics->Add("own " + std::to_string(i) + ' ' + std::to_string(j), 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(statistics->GetValue("shared"), 2000U);
  EXPECT_EQ(statistics->GetValue("own 3 499"), 1U);
}

}  // namespace
}  // namespace WindowsAgentCommon
