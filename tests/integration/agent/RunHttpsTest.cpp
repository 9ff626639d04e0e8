// The running agent with the reference configuration server over HTTPS.
#include "HttpsServedAgent.h"
#include "RunFixture.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class RunHttpsTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directory(Logs()); }

  std::filesystem::path Logs() const { return m_agent.Directory().Path() / "logs"; }
  void Serve(const std::string& destinations, const std::string& components = {}) {
    m_strServed = MakeConfiguration(Logs() / "*.log", destinations, components);
    m_agent.Server().Write("default/AgentConfig.xml", m_strServed);
  }
  std::string OwnFile(const char* name) const { return TemporaryDirectory::Read(m_agent.Directory().Path() / name); }
  bool WaitForAnswers(const std::string& answer, std::size_t number) {
    return WaitUntil([&] { return CountOf(m_agent.Server().Log(), answer) >= number; });
  }

  HttpsServedAgent m_agent;
  std::string m_strServed;
};

TEST_F(RunHttpsTest, RegistersReportsAndAppliesWhatItIsGiven) {
  LoopbackTcpServer receiver;
  Append(Logs() / "a.log", "one\n");
  Serve(TcpDestination(receiver.Port()));
  const RunningAgent agent(m_agent.GetInstallation(), {"--os-version", "Test 1", "--agent-version", "9.9"});
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/registration.txt"),
              HasSubstr("os-version: Test 1\nagent-version: 9.9\n"));
  EXPECT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.md5").size() == 32; }));
  EXPECT_EQ(OwnFile("AgentConfig.xml"), m_strServed);

  // It asks again, and learns that it is up to date.
  ASSERT_TRUE(WaitForAnswers(" fingerprint: 200 ", 3)) << m_agent.Server().Log();
  EXPECT_EQ(CountOf(m_agent.Server().Log(), " configuration: 200 success"), 1u);
  EXPECT_EQ(CountOf(m_agent.Server().Log(), " register: 200 "), 1u);
  EXPECT_EQ(CountOf(agent.Log(), " is in force: "), 1u);
  // It reports how long the agent has been up, not the time of day.
  const std::string status = m_agent.Server().Read("agents/agent-7/status.txt");
  ASSERT_THAT(status, HasSubstr("\nstatus: 1\nuptime: "));
  EXPECT_LT(std::stol(status.substr(status.find("uptime: ") + 8)), 3600);
  EXPECT_EQ(StatusOf(m_agent.GetInstallation(), "mode"), "https");
  EXPECT_THAT(StatusOf(m_agent.GetInstallation(), "connection"), HasSubstr("in order, last used 20"));
  EXPECT_THAT(agent.Log() + m_agent.Server().Log(), Not(HasSubstr(HttpsServedAgent::token)));
}

TEST_F(RunHttpsTest, ChangedConfigurationArrives) {
  LoopbackTcpServer first;
  LoopbackTcpServer second;
  Append(Logs() / "a.log", "one\n");
  Serve(TcpDestination(first.Port()));
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_EQ(first.WaitForBytes(4), "one\n");
  Serve(TcpDestination(second.Port()));
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 2; })) << agent.Log();
  Append(Logs() / "a.log", "two\n");
  EXPECT_EQ(second.WaitForBytes(4), "two\n");
  EXPECT_EQ(OwnFile("AgentConfig.xml"), m_strServed);
}

TEST_F(RunHttpsTest, PatchOfANewerComponentIsFetched) {
  m_agent.Directory().Write("AgentCore.manifest", "Build Number: 10\n");
  m_agent.Server().Write("patches/agentcore.tar.gz", "the archive");
  Serve("",
        "<Component Name=\"AgentCore\" BuildNumber=\"11\"/>"
        "<Component Name=\"Missing\" BuildNumber=\"1\"/>");
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The patch x64_72_agentcore_11.tar.gz waits (11 bytes)."));
  ASSERT_TRUE(agent.WaitForLog("The configuration server has no patch x64_72_missing_1.tar.gz."));
  EXPECT_EQ(OwnFile("patch/x64_72_agentcore_11.tar.gz"), "the archive");
}

TEST_F(RunHttpsTest, TerminationIsReportedToTheServer) {
  Serve("");
  // Between two rounds, so that only this report must be made within the time limit for the end.
  RunningAgent agent(m_agent.GetInstallation(), {}, "4");
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  EXPECT_EQ(agent.End(), 0);
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/status.txt"), HasSubstr("\nstatus: 0\nuptime: "));
}

TEST_F(RunHttpsTest, DisabledUpdatesAreToldOfOnce) {
  m_agent.Server().Write("agents/agent-7/updates-disabled", "");
  Serve("");
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("has disabled updates for this agent."));
  ASSERT_TRUE(WaitForAnswers(" fingerprint: 204 ", 3)) << m_agent.Server().Log();
  EXPECT_EQ(CountOf(agent.Log(), "has disabled updates"), 1u);
  EXPECT_THAT(agent.Log(), Not(HasSubstr("The configuration server failed (")));
  EXPECT_FALSE(std::filesystem::exists(m_agent.Directory().Path() / "AgentConfig.xml"));
}

TEST_F(RunHttpsTest, RefusalEndsWhenTheServerReturnsToTheConfigurationInForce) {
  Serve("");
  const std::string good = m_strServed;
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  Serve("<Destination/>");
  EXPECT_TRUE(WaitUntil([&] { return !StatusOf(m_agent.GetInstallation(), "refused").empty(); }));
  m_agent.Server().Write("default/AgentConfig.xml", good);
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "refused").empty(); }));
  EXPECT_EQ(CountOf(agent.Log(), " is in force: "), 1u);
}

TEST(RunHttpsBoundTest, ConfigurationWithoutEndIsRefused) {
  HttpsServedAgent served({"--fault", "endless-body", "--fault-on", "configuration", "--fault-times", "1"});
  const std::string configuration = MakeConfiguration(served.Directory().Path() / "a", "");
  served.Server().Write("default/AgentConfig.xml", configuration);
  const RunningAgent agent(served.GetInstallation());
  ASSERT_TRUE(
      agent.WaitForLog("is refused; the previous one stays in force: line 1: the configuration has more than 1048576"));
  EXPECT_TRUE(agent.WaitForLog(" is in force: "));
}

struct FailedExchange {
  const char* name;
  const char* fault;
  const char* exchange;
  const char* failure;  ///< as the log begins to tell it
};

void PrintTo(const FailedExchange& exchange, std::ostream* out) { *out << exchange.name; }

class RunHttpsFailureTest : public testing::TestWithParam<FailedExchange> {};

TEST_P(RunHttpsFailureTest, IsToldAndTriedAgain) {
  HttpsServedAgent served({"--fault", GetParam().fault, "--fault-on", GetParam().exchange, "--fault-times", "1"});
  const std::string configuration = MakeConfiguration(served.Directory().Path() / "a", "");
  served.Server().Write("default/AgentConfig.xml", configuration);
  const RunningAgent agent(served.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The configuration server failed (" + std::string(GetParam().failure)));
  EXPECT_TRUE(agent.WaitForLog("The configuration server is back."));
  EXPECT_EQ(TemporaryDirectory::Read(served.Directory().Path() / "AgentConfig.xml"), configuration);
  EXPECT_EQ(TemporaryDirectory::Read(served.Directory().Path() / "AgentConfig.md5").size(), 32u);
}

INSTANTIATE_TEST_SUITE_P(
    Exchanges, RunHttpsFailureTest,
    testing::Values(FailedExchange{"Registration", "status:500", "register", "registration: 0, result code 500)"},
                    FailedExchange{"StatusReport", "status:503", "status", "the status report: 0, result code 503)"},
                    FailedExchange{"Fingerprint", "status:500", "fingerprint", "the fingerprint: 0, result code 500)"},
                    FailedExchange{"Configuration", "status:500", "configuration",
                                   "the configuration: 0, result code 500)"},
                    FailedExchange{"TextForAFingerprint", "status:200", "fingerprint",
                                   "the fingerprint: 0, the server's answer is none)"},
                    FailedExchange{"CutFingerprint", "cut:130", "fingerprint", "the fingerprint: 18, "}),
    [](const testing::TestParamInfo<FailedExchange>& test) { return std::string(test.param.name); });

TEST(RunHttpsPatchTest, PageIsNoPatchAndKeepsTheAgentFromNoOther) {
  HttpsServedAgent served({"--fault", "html", "--fault-on", "patch", "--fault-times", "1"});
  served.Server().Write("patches/agentcore.tar.gz", "the archive");
  served.Server().Write("patches/other.tar.gz", "another");
  served.Server().Write("default/AgentConfig.xml",
                        MakeConfiguration(served.Directory().Path() / "a", "",
                                          "<Component Name=\"AgentCore\" BuildNumber=\"11\"/>"
                                          "<Component Name=\"Other\" BuildNumber=\"2\"/>"));
  const RunningAgent agent(served.GetInstallation());
  EXPECT_TRUE(agent.WaitForLog("failed (the patch x64_72_agentcore_11.tar.gz: 0, what came is no archive)"));
  EXPECT_TRUE(agent.WaitForLogInOrder("The patch x64_72_other_2.tar.gz waits (7 bytes).",
                                      "The patch x64_72_agentcore_11.tar.gz waits (11 bytes)."));
}

/// A page from something in between, instead of an answer.
class RunHttpsPageTest : public testing::TestWithParam<const char*> {};

TEST_P(RunHttpsPageTest, IsNotTakenForAnAnswer) {
  HttpsServedAgent served({"--fault", "html", "--fault-on", GetParam(), "--fault-times", "1"});
  const std::string configuration = MakeConfiguration(served.Directory().Path() / "a", "");
  served.Server().Write("default/AgentConfig.xml", configuration);
  const RunningAgent agent(served.GetInstallation());
  const std::filesystem::path file = served.Directory().Path() / "AgentConfig.xml";
  EXPECT_TRUE(WaitUntil([&] { return TemporaryDirectory::Read(file) == configuration; })) << agent.Log();
  const bool isRefused = GetParam() == std::string("configuration");
  EXPECT_THAT(agent.Log(),
              HasSubstr(isRefused ? "The configuration from the server is refused; the previous one stays in force"
                                  : "The configuration server failed ("));
}

INSTANTIATE_TEST_SUITE_P(Answers, RunHttpsPageTest,
                         testing::Values("register", "status", "fingerprint", "configuration"),
                         [](const testing::TestParamInfo<const char*>& test) { return std::string(test.param); });

}  // namespace
}  // namespace sorvex::test
