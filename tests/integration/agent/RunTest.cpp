// The running agent without a configuration server.
#include "RunFixture.h"
#include "support/LoopbackTlsServer.h"
#include "support/LoopbackUdpServer.h"
#include "support/TlsIdentity.h"

#include <atomic>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

class RunTest : public testing::Test {
 protected:
  /// A running agent sees the whole new file or the old one.
  void Configure(const std::string& destinations) const {
    const std::filesystem::path written =
        m_installation.Directory().Write("AgentConfig.new", MakeConfiguration(Logs() / "*.log", destinations));
    std::error_code inUse;
    ASSERT_TRUE(WaitUntil([&] {
      std::filesystem::rename(written, m_installation.Directory().Path() / "AgentConfig.xml", inUse);
      return !inUse;
    })) << inUse.message();
  }
  std::filesystem::path Logs() const { return m_installation.Directory().Path() / "logs"; }
  std::filesystem::path Log(const std::string& name = "a.log") const { return Logs() / name; }
  /// Waits until some file's saved position is this one. Its volume, number and birth come first.
  bool WaitForSavedPosition(int position) const {
    const std::regex isSaved("\nfile [0-9]+ [0-9]+ [0-9]+ " + std::to_string(position) + " ");
    return WaitUntil([&] {
      const std::filesystem::path file = m_installation.Directory().Path() / "state" / "positions";
      return std::regex_search(TemporaryDirectory::Read(file), isSaved);
    });
  }
  void SetUp() override { std::filesystem::create_directory(Logs()); }

  Installation m_installation;
};

TEST_F(RunTest, ForwardsWhatIsThereAndWhatIsAdded) {
  LoopbackTcpServer tcp;
  LoopbackTlsServer tls;
  LoopbackUdpServer udp;
  Configure(TcpDestination(tcp.Port()) + "<Destination Type=\"tls\" Address=\"127.0.0.1\" Port=\"" +
            std::to_string(tls.Port()) + "\" Builder=\"RawPayloadBuilder\"><Certificate>" +
            ServerIdentity().CertificatePem() + "</Certificate></Destination><Destination Type=\"udp\" " +
            "Address=\"127.0.0.1\" Port=\"" + std::to_string(udp.Port()) + "\" Builder=\"RawPayloadBuilder\"/>");
  Append(Log(), "one\n");
  const RunningAgent agent(m_installation);
  EXPECT_EQ(tcp.WaitForBytes(4), "one\n");
  Append(Log(), "two\n");
  EXPECT_EQ(tcp.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(tls.WaitForBytes(8), "one\ntwo\n");
  EXPECT_THAT(udp.WaitForDatagrams(2), testing::ElementsAre("one", "two"));
}

TEST_F(RunTest, EventNamesItsFile) {
  LoopbackTcpServer server;
  Configure("<Destination Type=\"tcp\" Address=\"127.0.0.1\" Port=\"" + std::to_string(server.Port()) + "\"/>");
  Append(Log("web.log"), "text\n");
  const RunningAgent agent(m_installation);
  EXPECT_TRUE(WaitUntil([&] { return server.Received().ends_with("\n"); }));
  EXPECT_THAT(server.Received(), HasSubstr(" web.log - - - text\n"));
}

TEST_F(RunTest, KilledAgentSkipsNothing) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  std::string lines;
  for (int number = 0; number < 20'000; ++number) lines += "line " + std::to_string(number) + "\n";
  Append(Log(), lines);
  {
    RunningAgent agent(m_installation);
    server.WaitForBytes(1000);
    agent.Kill();
  }
  const RunningAgent agent(m_installation);
  EXPECT_TRUE(WaitUntil([&] { return server.Received().ends_with("line 19999\n"); }));
  std::istringstream received(server.Received());
  std::set<std::string> seen;
  // A line that the kill had cut arrived whole afterwards.
  for (std::string line; std::getline(received, line);) seen.insert(line);
  for (int number = 0; number < 20'000; ++number) {
    ASSERT_TRUE(seen.contains("line " + std::to_string(number))) << number;
  }
}

TEST_F(RunTest, FileThatAppearsWhileTheAgentIsStoppedIsReadWhole) {
  LoopbackTcpServer server;
  // Of files that are there at first, only what is added is read.
  m_installation.Directory().Write("AgentConfig.xml", "<AgentConfig><Inputs><File Path=\"" +
                                                          (Logs() / "*.log").string() + "\"/></Inputs><Destinations>" +
                                                          TcpDestination(server.Port()) +
                                                          "</Destinations></AgentConfig>");
  Append(Log(), "one\n");
  {
    RunningAgent agent(m_installation);
    ASSERT_TRUE(WaitUntil([&] {
      Append(Log(), "two\n");
      return !server.Received().empty();
    }));
    ASSERT_TRUE(
        WaitUntil([&] { return std::filesystem::exists(m_installation.Directory().Path() / "state" / "positions"); }));
    agent.Kill();
  }
  Append(Log("b.log"), "three\n");
  const RunningAgent agent(m_installation);
  EXPECT_TRUE(WaitUntil([&] { return server.Received().find("three\n") != std::string::npos; })) << server.Received();
}

TEST_F(RunTest, PositionsAreSavedWhileItRuns) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  {
    RunningAgent agent(m_installation);
    Append(Log(), "one\n");
    EXPECT_EQ(server.WaitForBytes(4), "one\n");
    ASSERT_TRUE(WaitForSavedPosition(4));
    agent.Kill();
  }
  const RunningAgent agent(m_installation);
  Append(Log(), "two\n");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(RunTest, LinesThatNobodyTookAreSentByTheNextAgent) {
  const RefusingPort refusing;
  Configure(TcpDestination(refusing.Port()));
  Append(Log(), "one\ntwo\n");
  {
    const RunningAgent agent(m_installation);
    ASSERT_TRUE(WaitUntil(
        [&] { return m_installation.Run({"status"}).output.find(" 2     0       2 ") != std::string::npos; }));
  }
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  const RunningAgent agent(m_installation);
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(RunTest, TerminationSavesPositionsSoThatNothingComesTwice) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  Append(Log(), "one\n");
  {
    RunningAgent agent(m_installation);
    EXPECT_EQ(server.WaitForBytes(4), "one\n");
    EXPECT_EQ(agent.End(), 0);
    EXPECT_THAT(agent.Log(), HasSubstr("The agent stops."));
  }
  EXPECT_FALSE(std::filesystem::exists(m_installation.Directory().Path() / "state" / "status"));
  RunningAgent agent(m_installation);
  Append(Log(), "two\n");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(RunTest, TerminationEndsAWaitAndLogsStatistics) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  Append(Log(), "one\n");
  RunningAgent agent(m_installation, {}, "300");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
  // Afterwards nothing is due for seconds.
  ASSERT_TRUE(WaitForSavedPosition(4));
  EXPECT_EQ(agent.End(), 0);
  EXPECT_THAT(agent.Log(), HasSubstr("Statistics.Agent " + TcpUrl(server.Port()) + ": submitted 1, sent 1, queued 0,"));
}

/// A receiver that reads nothing at first, and 8000 lines: more than the system buffers, but its destination's queue
/// holds them all.
class HeldReceiver {
 public:
  std::string Destination() const {
    return "<Destination Type=\"tcp\" Address=\"127.0.0.1\" Port=\"" + std::to_string(m_server.Port()) +
           "\" Builder=\"RawPayloadBuilder\"><Parameter Name=\"Socket.QueueHighWaterMark\" Value=\"100000000\"/>"
           "</Destination>";
  }
  static std::string Line(int number) { return std::to_string(number) + std::string(999, 'x') + "\n"; }
  static std::string Lines() {
    std::string lines;
    for (int number = 0; number < 8000; ++number) lines += Line(number);
    return lines;
  }
  void StartReading() { m_isReading = true; }
  bool WaitForEnding(std::string_view ending) { return m_server.WaitForEnding(ending); }
  /// Whether some of the lines were received exactly once.
  testing::AssertionResult HasEachOnce() const {
    for (const int number : {0, 4000, 7999}) {
      const std::size_t count = CountOf("\n" + m_server.Received(), "\n" + Line(number));
      if (count != 1) return testing::AssertionFailure() << "line " << number << " was received " << count << " times";
    }
    return testing::AssertionSuccess();
  }

 private:
  std::atomic<bool> m_isReading{false};
  LoopbackTcpServer m_server{[this](LoopbackTcpServer& self, ServerConnection& connection, int) {
                               while (!m_isReading && !self.IsStopped()) std::this_thread::sleep_for(1ms);
                               self.KeepAllOf(connection);
                             },
                             0, 4096};
};

TEST_F(RunTest, TerminationSavesWhatItStillDelivers) {
  const ThreadsMayRemain sanitizer;
  HeldReceiver receiver;
  Configure(receiver.Destination());
  Append(Log(), HeldReceiver::Lines());
  {
    RunningAgent agent(m_installation);
    ASSERT_TRUE(WaitUntil([&] { return m_installation.Run({"status"}).output.find(" 8000 ") != std::string::npos; }));
    agent.Process().RequestEnd();
    ASSERT_TRUE(agent.WaitForLog("The agent stops."));
    receiver.StartReading();
    EXPECT_EQ(agent.Process().Wait(8s), 0);
    // The last statistics are those of the end: what was not sent was given up.
    EXPECT_TRUE(WaitUntil([&] {
      const std::string log = agent.Log();
      return log.find(", queued 0,", log.rfind("Statistics.Agent ")) != std::string::npos;
    })) << agent.Log();
  }
  // A line that did not arrive within the limit comes whole now; no whole one comes twice.
  const RunningAgent agent(m_installation);
  Append(Log(), "last\n");
  ASSERT_TRUE(receiver.WaitForEnding("\nlast\n"));
  EXPECT_TRUE(receiver.HasEachOnce());
}

TEST_F(RunTest, ChangeDoublesNothingThatAKeptDestinationStillHas) {
  HeldReceiver receiver;
  LoopbackTcpServer added;
  Configure(receiver.Destination());
  Append(Log(), HeldReceiver::Lines());
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(WaitUntil([&] { return m_installation.Run({"status"}).output.find(" 8000 ") != std::string::npos; }));
  Configure(receiver.Destination() + TcpDestination(added.Port()));
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 2; })) << agent.Log();
  Append(Log(), "last\n");
  // The new one gets new lines only, although others are still on their way.
  EXPECT_EQ(added.WaitForBytes(5), "last\n");
  receiver.StartReading();
  ASSERT_TRUE(receiver.WaitForEnding("\nlast\n"));
  EXPECT_TRUE(receiver.HasEachOnce());
}

TEST_F(RunTest, TerminationTakesNoLongerWhateverDestinationsDo) {
  const ThreadsMayRemain sanitizer;
  const RefusingPort refusing;
  LoopbackTcpServer holding([](LoopbackTcpServer& server, ServerConnection&, int) { server.HoldUntilStopped(); }, 0,
                            4096);
  Configure(TcpDestination(refusing.Port()) + TcpDestination(holding.Port()));
  Append(Log(), std::string(3'000'000, 'x') + "\n");
  for (int number = 0; number < 3000; ++number) Append(Log(), std::string(999, 'x') + "\n");
  RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog("Thread running"));
  EXPECT_EQ(agent.End(), 0);
}

TEST_F(RunTest, ReceiverMayBeRestarted) {
  // Started first: it would inherit the receiver's listening socket.
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog("The agent starts"));
  auto server = std::make_unique<LoopbackTcpServer>();
  const std::uint16_t port = server->Port();
  Configure(TcpDestination(port));
  Append(Log(), "one\n");
  EXPECT_EQ(server->WaitForBytes(4), "one\n");
  server->Kill();
  server.reset();
  server = std::make_unique<LoopbackTcpServer>(
      [](LoopbackTcpServer& self, ServerConnection& connection, int) { self.KeepAllOf(connection); }, port);
  Append(Log(), "two\n");
  EXPECT_EQ(server->WaitForBytes(4), "two\n");
}

TEST_F(RunTest, ChangedFileIsApplied) {
  LoopbackTcpServer first;
  LoopbackTcpServer second;
  Configure(TcpDestination(first.Port()));
  Append(Log(), "one\n");
  const RunningAgent agent(m_installation);
  EXPECT_EQ(first.WaitForBytes(4), "one\n");
  Configure(TcpDestination(second.Port()));
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 2; })) << agent.Log();
  Append(Log(), "two\n");
  EXPECT_EQ(second.WaitForBytes(4), "two\n");
  EXPECT_EQ(first.Received(), "one\n");
}

TEST_F(RunTest, ChangeOfADeadDestinationLosesNothingAndDoublesNothingElsewhere) {
  const RefusingPort refusing;
  LoopbackTcpServer kept;
  LoopbackTcpServer added;
  Configure(TcpDestination(kept.Port()) + TcpDestination(refusing.Port()));
  Append(Log(), "one\ntwo\n");
  const RunningAgent agent(m_installation);
  EXPECT_EQ(kept.WaitForBytes(8), "one\ntwo\n");
  Configure(TcpDestination(kept.Port()) + TcpDestination(added.Port()));
  EXPECT_EQ(added.WaitForBytes(8), "one\ntwo\n");
  Append(Log(), "three\n");
  EXPECT_EQ(added.WaitForBytes(14), "one\ntwo\nthree\n");
  EXPECT_EQ(kept.WaitForBytes(14), "one\ntwo\nthree\n");
}

TEST_F(RunTest, FileWithAnErrorIsRefusedWhole) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  Configure(TcpDestination(0));
  ASSERT_TRUE(
      agent.WaitForLog("AgentConfig.xml is refused; the previous configuration stays in force: line 3: Port is '0'"));
  EXPECT_TRUE(WaitUntil(
      [&] { return StatusOf(m_installation, "refused") == "line 3: Port is '0'; it takes a number from 1 to 65535"; }));
  Append(Log(), "one\n");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
  EXPECT_EQ(CountOf(agent.Log(), "is refused"), 1u);
  Configure(TcpDestination(server.Port()) + "<!-- mended -->");
  EXPECT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 2; }));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "refused").empty(); }));
}

TEST_F(RunTest, RemovedFileIsNotRefusedAnyMore) {
  Configure(TcpDestination(0));
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(WaitUntil([&] { return !StatusOf(m_installation, "refused").empty(); }));
  ASSERT_TRUE(WaitUntil([&] {
    std::error_code inUse;
    return std::filesystem::remove(m_installation.Directory().Path() / "AgentConfig.xml", inUse);
  }));
  EXPECT_TRUE(agent.WaitForLog("There is no AgentConfig.xml."));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "refused").empty(); }));
}

TEST_F(RunTest, FileThatCannotBeReadForAWhileIsToldOfOnce) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog(" is in force: "));
  const std::filesystem::path file = m_installation.Directory().Path() / "AgentConfig.xml";
  const std::filesystem::path aside = m_installation.Directory().Path() / "aside.xml";
  const auto rename = [](const std::filesystem::path& from, const std::filesystem::path& to) {
    return WaitUntil([&] {
      std::error_code inUse;
      std::filesystem::rename(from, to, inUse);
      return !inUse;
    });
  };
  ASSERT_TRUE(rename(file, aside));
  std::filesystem::create_directory(file);
  ASSERT_TRUE(agent.WaitForLog("AgentConfig.xml is refused"));
  // It is looked at as often as statistics are logged.
  const std::size_t lines = CountOf(agent.Log(), "Statistics.Agent ");
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), "Statistics.Agent ") >= lines + 3; }));
  EXPECT_EQ(CountOf(agent.Log(), "is refused"), 1u);
  EXPECT_THAT(StatusOf(m_installation, "refused"), HasSubstr("AgentConfig.xml"));
  std::filesystem::remove(file);
  ASSERT_TRUE(rename(aside, file));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "refused").empty(); }));
}

TEST_F(RunTest, LossToARemovedDestinationIsToldOf) {
  const RefusingPort refusing;
  LoopbackTcpServer kept;
  Configure(TcpDestination(kept.Port()) + TcpDestination(refusing.Port()));
  Append(Log(), "one\ntwo\n");
  const RunningAgent agent(m_installation);
  EXPECT_EQ(kept.WaitForBytes(8), "one\ntwo\n");
  Configure(TcpDestination(kept.Port()));
  EXPECT_TRUE(
      agent.WaitForLog("2 lines are lost: the configuration has removed destinations that had not received them."));
  Configure(TcpDestination(kept.Port()) + "<!-- again -->");
  ASSERT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), " is in force: ") == 3; }));
  EXPECT_EQ(CountOf(agent.Log(), "lines are lost"), 1u);
}

TEST_F(RunTest, InputThatCannotBeReadIsAWarning) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  Append(Log(), std::string("\x1F\x8B\x08\x00", 4) + "compressed");
  const RunningAgent agent(m_installation);
  EXPECT_TRUE(agent.WaitForLog("a.log: is compressed and is not read"));
  EXPECT_THAT(agent.Log(), HasSubstr(" Warn Code.Agent "));
}

TEST_F(RunTest, SecondAgentOnTheSameDirectoryRefuses) {
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog("The agent starts"));
  const ProcessResult second = m_installation.Run({"run"});
  EXPECT_EQ(second.status, 1);
  EXPECT_THAT(second.errors, HasSubstr("another agent runs here"));
}

TEST_F(RunTest, LockIsFreeAfterAKill) {
  {
    RunningAgent agent(m_installation);
    ASSERT_TRUE(agent.WaitForLog("The agent starts"));
    agent.Kill();
  }
  const RunningAgent agent(m_installation);
  EXPECT_TRUE(agent.WaitForLog("The agent starts"));
}

TEST_F(RunTest, StatisticsAreLoggedEveryInterval) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  Append(Log(), "one\ntwo\n");
  const RunningAgent agent(m_installation);
  const std::string line = "Info Statistics.Agent " + TcpUrl(server.Port()) +
                           ": submitted 2, sent 2, queued 0, truncated 0, dropped 0, connected since 20";
  EXPECT_TRUE(WaitUntil([&] { return CountOf(agent.Log(), line) >= 2; })) << agent.Log();
}

TEST_F(RunTest, StatusIsATable) {
  LoopbackTcpServer server;
  Configure(TcpDestination(server.Port()));
  Append(Log(), "one\n");
  RunningAgent agent(m_installation);
  server.WaitForBytes(4);
  EXPECT_TRUE(WaitUntil([&] {
    return m_installation.Run({"status"}).output.find(" 1     1       0 ") != std::string::npos;
  })) << m_installation.Run({"status"}).output;
  const ProcessResult status = m_installation.Run({"status"});
  EXPECT_EQ(status.status, 0);
  EXPECT_THAT(status.output,
              HasSubstr("agent           process " + std::to_string(agent.Process().Id()) + ", since 20"));
  EXPECT_THAT(status.output, HasSubstr("\nmode            stand-alone\n"));
  EXPECT_THAT(status.output, HasSubstr(" seconds ago\n"));
  agent.Kill();
  const ProcessResult without = m_installation.Run({"status"});
  EXPECT_EQ(without.status, 1);
  EXPECT_EQ(without.output, "");
  EXPECT_THAT(without.errors, HasSubstr("no agent runs on "));
}

TEST_F(RunTest, OutdatedStatusIsSaidToBe) {
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(WaitUntil([&] { return m_installation.Run({"status"}).status == 0; }));
  m_installation.Directory().Write("state/status", "1000\nagent           process 1\n");
  const ProcessResult status = m_installation.Run({"status"});
  EXPECT_EQ(status.status, 1);
  EXPECT_THAT(status.errors, HasSubstr("out of date"));
}

TEST_F(RunTest, StatusIsOutOfDateAfter150Seconds) {
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(WaitUntil([&] { return m_installation.Run({"status"}).status == 0; }));
  const auto runWithAge = [&](long long seconds) {
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    m_installation.Directory().Write("state/status", std::to_string(now.count() - seconds) + "\nagent           x\n");
    return m_installation.Run({"status"});
  };
  const ProcessResult old = runWithAge(151);
  EXPECT_EQ(old.status, 1);
  const std::string before = "agent           x\n\nas of ";
  ASSERT_THAT(old.output, testing::StartsWith(before));
  EXPECT_GE(std::stoi(old.output.substr(before.size())), 151);
  // Nobody has taken half a minute to ask.
  EXPECT_EQ(runWithAge(120).status, 0);
}

TEST_F(RunTest, StatusThatIsNoneIsSaidToBe) {
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(WaitUntil([&] { return m_installation.Run({"status"}).status == 0; }));
  for (const char* const content : {"", "\n", "1000", "1000 \nagent\n", "agent           x\n"}) {
    m_installation.Directory().Write("state/status", content);
    const ProcessResult status = m_installation.Run({"status"});
    EXPECT_EQ(status.status, 1) << content;
    EXPECT_EQ(status.output, "") << content;
    EXPECT_THAT(status.errors, HasSubstr("the status of the agent cannot be read")) << content;
  }
}

TEST_F(RunTest, StandardInputIsForwarded) {
  LoopbackTcpServer server;
  m_installation.Directory().Write("AgentConfig.xml", "<AgentConfig><Inputs><StandardInput/></Inputs><Destinations>" +
                                                          TcpDestination(server.Port()) +
                                                          "</Destinations></AgentConfig>");
  RunningAgent agent(m_installation);
  agent.Process().WriteInput("one\n");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

TEST_F(RunTest, WithoutAConfigurationItWaitsForOne) {
  LoopbackTcpServer server;
  const RunningAgent agent(m_installation);
  ASSERT_TRUE(agent.WaitForLog("The agent starts"));
  Configure(TcpDestination(server.Port()));
  Append(Log(), "one\n");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

TEST(RunCommandLine, IntervalIsBounded) {
  const Installation installation;
  for (const char* const interval : {"0", "86401", "1.5", "x", "-1"}) {
    const ProcessResult result = installation.Run({"run", "--interval", interval});
    EXPECT_EQ(result.status, 2) << interval;
    EXPECT_THAT(result.errors, HasSubstr("is not a number of seconds from 1 to 86400")) << interval;
  }
}

TEST(CheckConfiguration, SaysWhatIsInAFile) {
  const Installation installation;
  const std::string file =
      installation.Directory()
          .Write("x.xml", MakeConfiguration(installation.Directory().Path() / "a", TcpDestination(1),
                                            "<Component Name=\"A\" BuildNumber=\"1\"/>"))
          .string();
  const ProcessResult result = installation.Run({"check-configuration", file});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "inputs: 1\ndestinations: 1\ncomponents: 1\n");
}

TEST(CheckConfiguration, SaysWhatIsWrongAndWhere) {
  const Installation installation;
  const std::string file = installation.Directory().Write("x.xml", "<AgentConfig>\n<Typo/>\n</AgentConfig>").string();
  const ProcessResult result = installation.Run({"check-configuration", file});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("x.xml: line 2: AgentConfig has no element 'Typo'"));
}

TEST(CheckConfiguration, ReadsCertificates) {
  const Installation installation;
  const auto check = [&](const std::string& certificate) {
    const std::string destination =
        "<Destination Type=\"tls\" Address=\"a\"><Certificate>" + certificate + "</Certificate></Destination>";
    const std::string file = installation.Directory()
                                 .Write("x.xml", MakeConfiguration(installation.Directory().Path() / "a", destination))
                                 .string();
    return installation.Run({"check-configuration", file});
  };
  EXPECT_EQ(check(ServerIdentity().CertificatePem()).status, 0);
  const ProcessResult damaged = check("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----");
  EXPECT_EQ(damaged.status, 1);
  EXPECT_THAT(damaged.errors, HasSubstr("line 3: the certificate in it is damaged"));
}

TEST(CheckConfiguration, WithoutTheFileFails) {
  const Installation installation;
  const ProcessResult result = installation.Run({"check-configuration", "no-such-file"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("no-such-file"));
}

}  // namespace
}  // namespace sorvex::test
