// What the local heartbeat asks of the host's monitor, which it replaces.
#include "FakeComponentFactory.h"

#include "connection/NullConfigServerConnection.h"

#include <host/Heartbeat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;

}  // namespace

namespace WindowsAgentCommon {

Heartbeat::Heartbeat() { calls.push_back("Heartbeat"); }

Heartbeat::~Heartbeat() { calls.push_back("~Heartbeat"); }

void Heartbeat::Initialize(const ParameterBlock& parameters) {
  std::string call = "Initialize";
  for (const auto& [key, value] : parameters) call += " " + key + "=" + value;
  calls.push_back(call);
}

bool Heartbeat::HandleEvent(int level, const std::string& source, const std::string& text) {
  calls.push_back("HandleEvent " + std::to_string(level) + " " + source + " " + text);
  return true;
}

void Heartbeat::Shutdown() { calls.push_back("Shutdown"); }

}  // namespace WindowsAgentCommon

namespace {

TEST(StandAloneHeartbeat, IsOneEventOfLevel3BetweenInitializeAndShutdown) {
  sorvex::test::FakeComponentFactory host;
  WindowsAgentCommon::ServiceConfig config;
  config.m_strName = "AgentCore";
  config.m_parameters = {{"A", "1"}, {"LogMonitor.Level", "7"}};
  host.SetServiceConfig(config);
  EXPECT_FALSE(VaroCommunicationAPI::NullConfigServerConnection().PostHeartbeat());
  EXPECT_THAT(calls, testing::ElementsAre("Heartbeat", "Initialize A=1 LogMonitor.Level=2",
                                          "HandleEvent 3 Code.SSLConfigServerConnection ApplicationHeartbeat",
                                          "Shutdown", "~Heartbeat"));
}

}  // namespace
