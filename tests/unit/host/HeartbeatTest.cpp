#include <host/Heartbeat.h>

#include <SorvexHost/ComponentFactory.h>
#include <host/IStatisticsServer.h>
#include <host/ServiceLookup.h>

#include <support/RecordingLogger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace WindowsAgentCommon {
namespace {

using sorvex::test::LogRecord;
using sorvex::test::RecordingLogger;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Heartbeat, RefusesEventsBeforeItIsInitialised) {
  const RecordingLogger log;
  Heartbeat heartbeat;
  EXPECT_FALSE(heartbeat.HandleEvent(9, "Source", "text"));
  EXPECT_THAT(log->Records(), IsEmpty());
}

TEST(Heartbeat, PassesEventsOnFromLevelTwo) {
  const RecordingLogger log;
  Heartbeat heartbeat;
  heartbeat.Initialize({});
  EXPECT_FALSE(heartbeat.HandleEvent(-1, "Source", "text"));
  EXPECT_FALSE(heartbeat.HandleEvent(1, "Source", "text"));
  EXPECT_TRUE(heartbeat.HandleEvent(2, "Source", "text %s"));
  EXPECT_THAT(log->Records(), ElementsAre(LogRecord{LogLevel::Info, "Heartbeat.Source", "text %s"}));
}

TEST(Heartbeat, ReadsItsLevel) {
  Heartbeat heartbeat;
  heartbeat.Initialize({{"LogMonitor.Level", "4000000000"}});
  EXPECT_FALSE(heartbeat.HandleEvent(2147483647, "Source", "text"));
  heartbeat.Initialize({{"LogMonitor.Level", "0"}});
  const RecordingLogger log;
  EXPECT_TRUE(heartbeat.HandleEvent(0, "Source", "text"));
}

TEST(Heartbeat, WrongLevelIsTheDefault) {
  const RecordingLogger log;
  Heartbeat heartbeat;
  heartbeat.Initialize({{"LogMonitor.Level", "high"}});
  EXPECT_FALSE(heartbeat.HandleEvent(1, "Source", "text"));
  EXPECT_TRUE(heartbeat.HandleEvent(2, "Source", "text"));
}

TEST(Heartbeat, RefusesEventsAfterShutdown) {
  const RecordingLogger log;
  Heartbeat heartbeat;
  heartbeat.Initialize({});
  heartbeat.Shutdown();
  EXPECT_FALSE(heartbeat.HandleEvent(9, "Source", "text"));
}

TEST(Heartbeat, CountsEventsWithTheStatisticsServer) {
  const RecordingLogger log;
  ComponentFactory factory;
  factory.RegisterBuiltInServices();
  ASSERT_TRUE(factory.LoadService("IStatisticsServer"));
  Heartbeat heartbeat;
  heartbeat.Initialize({});
  heartbeat.HandleEvent(2, "Source", "text");
  heartbeat.HandleEvent(3, "Source", "text");
  heartbeat.HandleEvent(1, "Source", "text");
  EXPECT_EQ(GetService<IStatisticsServer>()->GetValue("Heartbeat.Source"), 2U);
}

}  // namespace
}  // namespace WindowsAgentCommon
