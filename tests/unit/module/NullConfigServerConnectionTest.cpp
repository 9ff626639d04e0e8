// The connection that answers without a server.
#include "FakeComponentFactory.h"
#include "InstallationDirectory.h"

#include "connection/LocalHeartbeat.h"
#include "connection/NullConfigServerConnection.h"
#include "support/RecordingLogger.h"

#include <host/IStatisticsServer.h>

#include <ace/Time_Value.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

namespace {

using sorvex::test::FakeComponentFactory;
using sorvex::test::InstallationDirectory;
using sorvex::test::LogRecord;
using sorvex::test::RecordingLogger;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using VaroCommunicationAPI::NullConfigServerConnection;
using WindowsAgentCommon::LogLevel;
using WindowsAgentCommon::ServiceConfig;

class StandAloneConnection : public testing::Test {
 protected:
  void OfferAgentCore(WindowsAgentCommon::ParameterBlock parameters) {
    ServiceConfig config;
    config.m_strName = "AgentCore";
    config.m_parameters = std::move(parameters);
    m_host.SetServiceConfig(config);
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  FakeComponentFactory m_host;
  NullConfigServerConnection m_connection;
};

TEST_F(StandAloneConnection, InitializeSucceeds) { EXPECT_TRUE(m_connection.Initialize({})); }

TEST_F(StandAloneConnection, RegisterInstanceSucceeds) { EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5")); }

TEST_F(StandAloneConnection, TestConnectionSucceeds) { EXPECT_TRUE(m_connection.TestConnection()); }

TEST_F(StandAloneConnection, UpdateStatusSucceeds) {
  EXPECT_TRUE(m_connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
}

TEST_F(StandAloneConnection, RetrieveConfigurationFailsAndWritesNothing) {
  std::ostringstream output;
  std::string md5 = "untouched";
  EXPECT_FALSE(m_connection.RetrieveConfiguration(output, md5));
  EXPECT_EQ(output.str(), "");
  EXPECT_EQ(md5, "untouched");
}

TEST_F(StandAloneConnection, RetrieveSoftwarePatchFailsAndWritesNothing) {
  std::ostringstream output;
  std::string md5 = "untouched";
  EXPECT_FALSE(m_connection.RetrieveSoftwarePatch({"AgentCore"}, output, md5));
  EXPECT_EQ(output.str(), "");
  EXPECT_EQ(md5, "untouched");
}

TEST_F(StandAloneConnection, HasNoServerPublicKey) {
  std::uint32_t size = 7;
  EXPECT_FALSE(m_connection.GetServerPublicKey(nullptr, size));
  EXPECT_EQ(size, 0U);
}

TEST_F(StandAloneConnection, HasNoServerPublicKeyForAnyBuffer) {
  std::array<std::uint8_t, 4> buffer{1, 2, 3, 4};
  std::uint32_t size = 4;
  EXPECT_FALSE(m_connection.GetServerPublicKey(buffer.data(), size));
  EXPECT_EQ(size, 0U);
  EXPECT_THAT(buffer, ElementsAre(1, 2, 3, 4));
}

TEST_F(StandAloneConnection, LastErrorCodeIsZero) { EXPECT_EQ(m_connection.GetLastErrorCode(), 0); }

TEST_F(StandAloneConnection, LastResultCodeIsZero) { EXPECT_EQ(m_connection.GetLastResultCode(), 0); }

TEST_F(StandAloneConnection, LastErrorMessageIsSuccess) { EXPECT_EQ(m_connection.GetLastErrorMessage(), "Success"); }

TEST_F(StandAloneConnection, ConnectSucceeds) { EXPECT_TRUE(m_connection.Connect()); }

TEST_F(StandAloneConnection, WorksOnAfterDisconnect) {
  m_connection.Disconnect();
  EXPECT_TRUE(m_connection.TestConnection());
}

TEST_F(StandAloneConnection, FingerprintIsDigestOfConfiguration) {
  m_installation.Write("config/AgentConfig.xml", "abc");
  bool updateBlocked = true;
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(updateBlocked), "900150983cd24fb0d6963f7d28e17f72");
}

TEST_F(StandAloneConnection, FingerprintNeverBlocksUpdates) {
  bool updateBlocked = true;
  m_connection.GetConfigurationFingerprint(updateBlocked);
  EXPECT_FALSE(updateBlocked);
}

TEST_F(StandAloneConnection, FingerprintFollowsConfiguration) {
  bool updateBlocked = false;
  m_installation.Write("config/AgentConfig.xml", "abc");
  m_connection.GetConfigurationFingerprint(updateBlocked);
  m_installation.Write("config/AgentConfig.xml", "");
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(updateBlocked), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST_F(StandAloneConnection, FingerprintOfMissingConfigurationIsTheHostsAnswer) {
  bool updateBlocked = false;
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(updateBlocked), "");
}

TEST_F(StandAloneConnection, HeartbeatIsDeliveredAndStillReturnsFalse) {
  OfferAgentCore({});
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_THAT(
      m_log->Records(),
      ElementsAre(LogRecord{LogLevel::Debug, "Code.ConfigServerConnection", "Stand Alone mode: PostHeartbeat"},
                  LogRecord{LogLevel::Info, "Heartbeat.Code.SSLConfigServerConnection", "ApplicationHeartbeat"}));
}

TEST_F(StandAloneConnection, HeartbeatWithoutAgentCoreDoesNothing) {
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

TEST_F(StandAloneConnection, HeartbeatReplacesLogMonitorLevel) {
  OfferAgentCore({{"A", "1"}, {"LogMonitor.Level", "7"}});
  m_connection.PostHeartbeat();
  EXPECT_THAT(m_host.GetServiceConfig("AgentCore")->m_parameters,
              ElementsAre(Pair("A", "1"), Pair("LogMonitor.Level", "2")));
}

TEST_F(StandAloneConnection, HeartbeatReplacesEveryLogMonitorLevel) {
  OfferAgentCore({{"LogMonitor.Level", "7"}, {"LogMonitor.Level", "0"}});
  m_connection.PostHeartbeat();
  EXPECT_THAT(m_host.GetServiceConfig("AgentCore")->m_parameters, ElementsAre(Pair("LogMonitor.Level", "2")));
}

TEST_F(StandAloneConnection, HeartbeatAddsLogMonitorLevel) {
  OfferAgentCore({});
  m_connection.PostHeartbeat();
  EXPECT_THAT(m_host.GetServiceConfig("AgentCore")->m_parameters, ElementsAre(Pair("LogMonitor.Level", "2")));
}

TEST_F(StandAloneConnection, HeartbeatLevelPassesMonitorThatWouldHaveRefusedIt) {
  OfferAgentCore({{"LogMonitor.Level", "7"}});
  m_connection.PostHeartbeat();
  EXPECT_EQ(m_log->Count("Info ApplicationHeartbeat"), 1U);
}

TEST_F(StandAloneConnection, HeartbeatLeavesLogMonitorLevelAloneThatIsRight) {
  OfferAgentCore({{"LogMonitor.Level", "2"}});
  const auto entry = m_host.GetServiceConfig("AgentCore")->m_parameters.begin();
  const char* const value = entry->second.data();
  m_connection.PostHeartbeat();
  const auto same = m_host.GetServiceConfig("AgentCore")->m_parameters.begin();
  EXPECT_EQ(&*same, &*entry);
  EXPECT_EQ(same->second.data(), value);
}

/// Releases threads when all have arrived. Not std::barrier: that of mingw-w64 may leave them all waiting.
class Meeting {
 public:
  explicit Meeting(
      int threads, std::function<void()> whenAllAreThere = [] {})
      : m_threads(threads), m_whenAllAreThere(std::move(whenAllAreThere)) {}

  void Arrive() {
    std::unique_lock lock(m_mutex);
    if (++m_arrived < m_threads) {
      m_changed.wait(lock, [this, round = m_round] { return m_round != round; });
      return;
    }
    m_whenAllAreThere();
    m_arrived = 0;
    ++m_round;
    m_changed.notify_all();
  }

 private:
  const int m_threads;
  const std::function<void()> m_whenAllAreThere;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_arrived = 0;
  int m_round = 0;
};

TEST_F(StandAloneConnection, HeartbeatsOfSeveralThreadsSetOneLogMonitorLevel) {
  constexpr int threadCount = 4;
  constexpr int roundCount = 1000;
  int wrong = 0;
  OfferAgentCore({{"LogMonitor.Level", "7"}});
  // Between two rounds no thread is running.
  const auto look = [&] {
    WindowsAgentCommon::ParameterBlock& parameters = m_host.GetServiceConfig("AgentCore")->m_parameters;
    if (parameters != WindowsAgentCommon::ParameterBlock{{"LogMonitor.Level", "2"}}) ++wrong;
    parameters = {{"LogMonitor.Level", "7"}};
  };
  Meeting start(threadCount);
  Meeting end(threadCount, look);
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < roundCount; ++round) {
        start.Arrive();
        NullConfigServerConnection().PostHeartbeat();
        end.Arrive();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST(LocalHeartbeat, HasNoAgentCoreWithoutComponentFactory) {
  EXPECT_EQ(VaroCommunicationAPI::FindAgentCoreConfig(), nullptr);
}

TEST(StandAloneConnectionWithoutHost, HeartbeatReturnsFalse) {
  const RecordingLogger log;
  EXPECT_FALSE(NullConfigServerConnection().PostHeartbeat());
  EXPECT_THAT(log->Records(), IsEmpty());
}

}  // namespace
