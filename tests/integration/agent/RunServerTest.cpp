// The running agent with the reference configuration server.
#include "RunFixture.h"
#include "ServedAgent.h"

#include <set>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

constexpr const char* away = "The configuration server failed (";
constexpr const char* back = "The configuration server is back.";

class RunServerTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directory(Logs()); }

  std::filesystem::path Logs() const { return m_agent.Directory().Path() / "logs"; }
  std::string Configuration(const std::string& destinations, const std::string& components = {}) const {
    return MakeConfiguration(Logs() / "*.log", destinations, components);
  }
  void Serve(const std::string& configuration) { m_agent.Server().Write("default/AgentConfig.xml", configuration); }
  std::string OwnFile(const char* name) const { return TemporaryDirectory::Read(m_agent.Directory().Path() / name); }
  std::set<std::string> PatchNames() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_agent.Directory().Path() / "patch")) {
      // One that is being requested may have a temporary name until the answer arrives.
      if (entry.path().extension() != ".part") names.insert(entry.path().filename().string());
    }
    return names;
  }
  bool WaitForStatus(const char* status) {
    return WaitUntil([&] {
      return m_agent.Server().Read("agents/agent-7/status.txt").find(std::string("status: ") + status + "\n") !=
             std::string::npos;
    });
  }

  ServedAgent m_agent;
};

TEST_F(RunServerTest, RegistersReportsAndAppliesWhatItIsGiven) {
  LoopbackTcpServer receiver;
  Append(Logs() / "a.log", "one\n");
  Serve(Configuration(TcpDestination(receiver.Port())));
  const RunningAgent agent(m_agent.GetInstallation(), {"--os-version", "Test 1", "--agent-version", "9.9"});
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  EXPECT_EQ(OwnFile("AgentConfig.xml"), Configuration(TcpDestination(receiver.Port())));
  EXPECT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.md5").size() == 32; }));
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/registration.txt"),
              HasSubstr("os-version: Test 1\nagent-version: 9.9\n"));
  EXPECT_TRUE(WaitForStatus("1"));
  // The time of day is reported, and not how long the agent has been up.
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/status.txt"), HasSubstr("\ntime: 20"));
  // It asks again, and learns that it is up to date.
  m_agent.Server().WaitForLog("configuration: 5 no update needed");
  EXPECT_EQ(CountOf(agent.Log(), " is in force: "), 1u);
  EXPECT_EQ(CountOf(m_agent.Server().Log(), " register: "), 1u);
  const std::string connection = StatusOf(m_agent.GetInstallation(), "connection");
  EXPECT_THAT(connection, HasSubstr("in order, last used 20"));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "connection") > connection; }));
  EXPECT_EQ(CountOf(agent.Log(), back), 0u);
  EXPECT_EQ(StatusOf(m_agent.GetInstallation(), "mode"), "direct-tls");
  EXPECT_EQ(StatusOf(m_agent.GetInstallation(), "server"), "127.0.0.1");
  EXPECT_EQ(StatusOf(m_agent.GetInstallation(), "registered"), "yes");
  EXPECT_THAT(StatusOf(m_agent.GetInstallation(), "configuration"),
              testing::StartsWith(OwnFile("AgentConfig.md5") + ", applied 20"));
}

TEST_F(RunServerTest, ChangedConfigurationArrives) {
  LoopbackTcpServer first;
  LoopbackTcpServer second;
  Append(Logs() / "a.log", "one\n");
  Serve(Configuration(TcpDestination(first.Port())));
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_EQ(first.WaitForBytes(4), "one\n");
  Serve(Configuration(TcpDestination(second.Port())));
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 2; })) << agent.Log();
  Append(Logs() / "a.log", "two\n");
  EXPECT_EQ(second.WaitForBytes(4), "two\n");
}

TEST_F(RunServerTest, ConfigurationWithAnErrorIsRefusedAndReported) {
  LoopbackTcpServer receiver;
  const std::string good = Configuration(TcpDestination(receiver.Port()));
  Serve(good);
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  Serve(Configuration("<Destination/>"));
  ASSERT_TRUE(
      agent.WaitForLog("The configuration from the server is refused; the previous one stays in force: line 3: the "
                       "attribute Type is missing"));
  EXPECT_TRUE(WaitForStatus("3"));
  EXPECT_EQ(OwnFile("AgentConfig.xml"), good);
  Append(Logs() / "a.log", "one\n");
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  EXPECT_TRUE(WaitUntil([&] {
    return StatusOf(m_agent.GetInstallation(), "refused").starts_with("line 3: the attribute Type is missing");
  }));
  // It comes again with each round.
  const std::size_t deliveries = CountOf(m_agent.Server().Log(), "configuration: 0 success");
  ASSERT_TRUE(WaitUntil([&] { return CountOf(m_agent.Server().Log(), "configuration: 0 success") >= deliveries + 4; }))
      << m_agent.Server().Log();
  EXPECT_EQ(CountOf(agent.Log(), "is refused"), 1u);
  Serve(good + " ");
  EXPECT_TRUE(WaitForStatus("1"));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "refused").empty(); }));
  Serve(Configuration("<Destination/>"));
  EXPECT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), "is refused") == 2; }));
}

TEST_F(RunServerTest, RefusalEndsWhenTheServerReturnsToTheConfigurationInForce) {
  const std::string good = Configuration("");
  Serve(good);
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  const std::string wrong = Configuration("<Destination/>");
  for (std::size_t time = 1; time <= 2; ++time) {
    Serve(wrong);
    EXPECT_TRUE(WaitForStatus("3"));
    Serve(good);
    EXPECT_TRUE(WaitForStatus("1"));
    EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "refused").empty(); }));
    EXPECT_EQ(CountOf(agent.Log(), "is refused"), time);
  }
  EXPECT_EQ(CountOf(agent.Log(), " is in force: "), 1u);
}

TEST_F(RunServerTest, RefusedOwnFileBesideADigestThatCannotBeRemovedEndsNobody) {
  m_agent.Directory().Write("AgentConfig.xml", Configuration("<Destination/>"));
  // A folder with something in it cannot be removed, whoever the user is.
  m_agent.Directory().Write("AgentConfig.md5/file", "");
  Serve(Configuration(""));
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("AgentConfig.xml is refused"));
  EXPECT_TRUE(agent.WaitForLog("The configuration server failed (the round: 0, "));
}

TEST_F(RunServerTest, ConfigurationThatIsTooLongIsRefused) {
  Serve(Configuration("<!--" + std::string(1024 * 1024, 'x') + "-->"));
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_TRUE(
      agent.WaitForLog("is refused; the previous one stays in force: line 1: the configuration has more than 1048576"));
  EXPECT_TRUE(WaitForStatus("3"));
  EXPECT_EQ(OwnFile("AgentConfig.xml"), "");
}

TEST_F(RunServerTest, LastGoodConfigurationServesWithoutTheServer) {
  LoopbackTcpServer receiver;
  Serve(Configuration(TcpDestination(receiver.Port())));
  {
    const RunningAgent agent(m_agent.GetInstallation());
    ASSERT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.md5").size() == 32; }));
  }
  // The server continues at another place.
  m_agent.Server().Start();
  Append(Logs() / "a.log", "one\n");
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  EXPECT_TRUE(agent.WaitForLog(away));
}

TEST_F(RunServerTest, ServerThatGoesAndComesBackIsToldOfOnce) {
  LoopbackTcpServer receiver;
  Serve(Configuration(TcpDestination(receiver.Port())));
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  const std::uint16_t port = m_agent.Server().Port();
  m_agent.Server().Start();
  ASSERT_TRUE(agent.WaitForLog(away));
  EXPECT_TRUE(
      WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "connection").starts_with("failing since 20"); }));
  const std::string connection = StatusOf(m_agent.GetInstallation(), "connection");
  EXPECT_THAT(StatusOf(m_agent.GetInstallation(), "last-error"), HasSubstr("-2147483641 The socket connection"));
  // It has tried more than once, and written its status since.
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), "Cannot connect to server (10061)") >= 3; })) << agent.Log();
  const std::size_t lines = CountOf(agent.Log(), "Statistics.Agent ");
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), "Statistics.Agent ") >= lines + 2; }));
  EXPECT_EQ(CountOf(agent.Log(), away), 1u);
  EXPECT_EQ(StatusOf(m_agent.GetInstallation(), "connection"), connection);

  Append(Logs() / "a.log", "one\n");
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  const ChildProcess server(SORVEX_CONFIGSERVER_PROGRAM, {"--data", m_agent.Server().Folder().string(), "--wire-port",
                                                          std::to_string(port), "--listen", "127.0.0.1"});
  EXPECT_TRUE(agent.WaitForLog(back));
  EXPECT_EQ(CountOf(agent.Log(), away), 1u);
}

TEST_F(RunServerTest, PatchesOfNewerComponentsAreFetched) {
  m_agent.Directory().Write("AgentCore.manifest", "Build Number: 10\n");
  m_agent.Directory().Write("Other.manifest", "Build Number: 10\n");
  m_agent.Directory().Write("patch/x64_72_agentcore_9.tar.gz", "older");
  m_agent.Server().Write("patches/agentcore.tar.gz", "the archive");
  m_agent.Server().Write("patches/other.tar.gz", "not wanted");
  Serve(Configuration("",
                      "<Component Name=\"AgentCore\" BuildNumber=\"11\"/>"
                      "<Component Name=\"Other\" BuildNumber=\"10\"/>"
                      "<Component Name=\"Missing\" BuildNumber=\"1\"/>"));
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The patch x64_72_agentcore_11.tar.gz waits (11 bytes)."));
  ASSERT_TRUE(agent.WaitForLog("The configuration server has no patch x64_72_missing_1.tar.gz."));
  m_agent.Server().WaitForLog("configuration: 5 no update needed");
  EXPECT_THAT(PatchNames(), testing::ElementsAre("x64_72_agentcore_11.tar.gz"));
  EXPECT_EQ(OwnFile("patch/x64_72_agentcore_11.tar.gz"), "the archive");
  EXPECT_EQ(CountOf(m_agent.Server().Log(), " patch: 0 success"), 1u) << "a patch that waits is not fetched again";
  EXPECT_EQ(CountOf(agent.Log(), "has no patch"), 1u);
}

TEST_F(RunServerTest, OnlyOlderPatchesOfTheSameComponentAreRemoved) {
  const std::set<std::string> older{"x64_72_ab_9.tar.gz", "x64_72_ab_11.tar.gz"};
  const std::set<std::string> others{
      // Of components whose names are as long, longer and shorter.
      "x64_72_ac_9.tar.gz", "x64_72_ab2_9.tar.gz", "x64_72_ab_c_9.tar.gz", "x64_72_a_9.tar.gz",
      // Newer, or of no build that a component can have.
      "x64_72_ab_13.tar.gz", "x64_72_ab_.tar.gz", "x64_72_ab_9x.tar.gz", "x64_72_ab_-9.tar.gz",
      "x64_72_ab_99999999999.tar.gz",
      // Like a patch at one end only.
      "x64_72_ab_9.tar.xz", "x64_72_ab_9", "x64_72_ab29.tar.gz", "y64_72_ab_9.tar.gz", "notes.txt"};
  for (const std::set<std::string>* const names : {&older, &others}) {
    for (const std::string& name : *names) m_agent.Directory().Write("patch/" + name, "waits");
  }
  m_agent.Server().Write("patches/ab.tar.gz", "the archive");
  Serve(Configuration("",
                      "<Component Name=\"Ab\" BuildNumber=\"12\"/>"
                      "<Component Name=\"Missing\" BuildNumber=\"1\"/>"));
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The patch x64_72_ab_12.tar.gz waits (11 bytes)."));
  // The component before is done with.
  ASSERT_TRUE(agent.WaitForLog("The configuration server has no patch x64_72_missing_1.tar.gz."));
  std::set<std::string> expected = others;
  expected.insert("x64_72_ab_12.tar.gz");
  EXPECT_EQ(PatchNames(), expected);
}

TEST_F(RunServerTest, DisabledUpdatesAreToldOfOnce) {
  m_agent.Server().Write("agents/agent-7/updates-disabled", "");
  Serve(Configuration(""));
  const RunningAgent agent(m_agent.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("has disabled updates for this agent."));
  ASSERT_TRUE(WaitUntil([&] { return CountOf(m_agent.Server().Log(), "configuration: 7") >= 3; }));
  EXPECT_EQ(CountOf(agent.Log(), "has disabled updates"), 1u);
  EXPECT_FALSE(std::filesystem::exists(m_agent.Directory().Path() / "AgentConfig.xml"));
}

TEST_F(RunServerTest, FileThatIsNotWhatItsDigestSaysIsFetchedAnew) {
  Serve(Configuration(""));
  {
    const RunningAgent agent(m_agent.GetInstallation());
    ASSERT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.md5").size() == 32; }));
  }
  m_agent.Directory().Write("AgentConfig.xml", "<AgentConfig/>");
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.xml") == Configuration(""); }));
}

TEST_F(RunServerTest, DamagedFileIsFetchedAnew) {
  Serve(Configuration(""));
  {
    const RunningAgent agent(m_agent.GetInstallation());
    ASSERT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.md5").size() == 32; }));
  }
  m_agent.Directory().Write("AgentConfig.xml", "<AgentConf");
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_TRUE(agent.WaitForLog("AgentConfig.xml is refused"));
  EXPECT_TRUE(WaitUntil([&] { return OwnFile("AgentConfig.xml") == Configuration(""); }));
}

TEST_F(RunServerTest, TerminationIsReportedToTheServer) {
  Serve(Configuration(""));
  // Between two rounds, so that only this report must be made within the time limit for the end.
  RunningAgent agent(m_agent.GetInstallation(), {}, "4");
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  EXPECT_EQ(agent.End(), 0);
  EXPECT_TRUE(WaitForStatus("0"));
}

/// Forced deployments are pending, so the agent works alone for now.
TEST_F(RunServerTest, ForcedDeploymentMakesItWorkAlone) {
  m_agent.Directory().Write("patch/force.deploy", "");
  const RunningAgent agent(m_agent.GetInstallation());
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_agent.GetInstallation(), "mode") == "stand-alone"; }));
}

TEST(RunWithFaultyServer, WrongDigestLeavesWhatThereIs) {
  ServedAgent served({"--fault", "wrong-digest", "--fault-times", "1"});
  const std::string configuration = MakeConfiguration(served.Directory().Path() / "a", "");
  served.Server().Write("default/AgentConfig.xml", configuration);
  const RunningAgent agent(served.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The configuration server failed (the configuration: 0, the MD5 of what came is "));
  EXPECT_TRUE(agent.WaitForLog(back));
  EXPECT_EQ(TemporaryDirectory::Read(served.Directory().Path() / "AgentConfig.xml"), configuration);
}

/// The connection is still good for the next patch.
TEST(RunWithFaultyServer, WrongDigestOfAPatchKeepsTheAgentFromNoOther) {
  ServedAgent served({"--fault", "wrong-digest", "--fault-on", "patch", "--fault-times", "1"});
  served.Server().Write("patches/agentcore.tar.gz", "the archive");
  served.Server().Write("patches/other.tar.gz", "another");
  served.Server().Write("default/AgentConfig.xml",
                        MakeConfiguration(served.Directory().Path() / "a", "",
                                          "<Component Name=\"AgentCore\" BuildNumber=\"11\"/>"
                                          "<Component Name=\"Other\" BuildNumber=\"2\"/>"));
  const RunningAgent agent(served.GetInstallation());
  EXPECT_TRUE(agent.WaitForLog("failed (the patch x64_72_agentcore_11.tar.gz: 0, the MD5 of what came is "));
  EXPECT_TRUE(agent.WaitForLogInOrder("The patch x64_72_other_2.tar.gz waits (7 bytes).",
                                      "The patch x64_72_agentcore_11.tar.gz waits (11 bytes)."));
}

TEST(RunWithFaultyServer, CutAnswerIsTriedAgain) {
  ServedAgent served({"--fault", "cut:17", "--fault-on", "status", "--fault-times", "1"});
  const RunningAgent agent(served.GetInstallation());
  ASSERT_TRUE(agent.WaitForLog("The configuration server failed (the status report: -2147483644, "));
  EXPECT_TRUE(agent.WaitForLog(back));
}

TEST(RunWithFaultyServer, TerminationDoesNotWaitForASilentServer) {
  const ThreadsMayRemain sanitizer;
  ServedAgent served({"--fault", "silent-handshake"});
  const Installation& installation = served.GetInstallation();
  LoopbackTcpServer receiver;
  const std::filesystem::path log = installation.Directory().Write("a.log", "one\n");
  installation.Directory().Write("AgentConfig.xml", MakeConfiguration(log, TcpDestination(receiver.Port())));
  RunningAgent agent(installation);
  EXPECT_EQ(receiver.WaitForBytes(4), "one\n");
  ASSERT_TRUE(agent.WaitForLog("Attempting to retrieve the certificate"));
  EXPECT_EQ(agent.End(), 0);
  EXPECT_THAT(TemporaryDirectory::Read(installation.Directory().Path() / "state" / "positions"), HasSubstr("a.log"));
}

}  // namespace
}  // namespace sorvex::test
