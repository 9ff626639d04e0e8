// Forwarding to several destinations at once.
#include "AgentFixture.h"
#include "support/LoopbackTlsServer.h"
#include "support/LoopbackUdpServer.h"
#include "support/RecordingLogger.h"

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAreArray;
using testing::HasSubstr;

/// Numbered lines of a thousand bytes.
std::string MakeLines(std::size_t count) {
  std::string lines;
  for (std::size_t number = 0; number < count; ++number) {
    std::string line = std::to_string(number);
    lines += line.append(999 - line.size(), 'x') + "\n";
  }
  return lines;
}

/// More than a destination that accepts nothing can buffer in its socket's queue and the agent.
constexpr std::size_t manyLines = 20'000;

long Number(const std::string& block, const std::string& key) { return std::stol(Value(block, key)); }

/// A server that does not read.
void Hold(LoopbackTcpServer& server, ServerConnection&, int) { server.HoldUntilStopped(); }

class AgentForwardSeveral : public testing::TestWithParam<bool> {
 protected:
  static std::vector<std::string> Further(std::vector<std::string> further = {}) {
    if (GetParam()) further.emplace_back("--queued");
    return further;
  }

  Installation m_installation;
};

INSTANTIATE_TEST_SUITE_P(Strategies, AgentForwardSeveral, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& test) { return test.param ? "Queued" : "Blocking"; });

TEST_P(AgentForwardSeveral, EachGetsEveryLineInOrder) {
  const std::string lines = MakeLines(manyLines);
  const std::string input = m_installation.Directory().Write("input.log", lines + "rest").string();
  const std::string pem = m_installation.Directory().Write("a.pem", ServerIdentity().CertificatePem()).string();
  LoopbackTcpServer tcp;
  LoopbackTlsServer tls;
  LoopbackTcpServer other;
  const ProcessResult result = m_installation.Run(ForwardTo(
      {TcpUrl(tcp.Port()), TlsUrl(tls.Port()), TcpUrl(other.Port())}, Further({"--certificate", pem, input})));
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_TRUE(tcp.WaitForBytes(lines.size() + 5) == lines + "rest\n");
  EXPECT_TRUE(tls.WaitForBytes(lines.size() + 5) == lines + "rest\n");
  EXPECT_TRUE(other.WaitForBytes(lines.size() + 5) == lines + "rest\n");
}

TEST_P(AgentForwardSeveral, KindsMayBeMixed) {
  std::vector<std::string> expected;
  std::string input;
  // No more than fits into the system's receive buffer.
  for (int number = 0; number < 100; ++number) {
    expected.push_back("line " + std::to_string(number));
    input += expected.back() + "\n";
  }
  LoopbackTcpServer tcp;
  LoopbackUdpServer udp;
  const ProcessResult result =
      m_installation.Run(ForwardTo({UdpUrl(udp.Port()), TcpUrl(tcp.Port())}, Further()), input);
  EXPECT_EQ(result.status, 0) << result.output << result.errors;
  EXPECT_EQ(tcp.WaitForBytes(input.size()), input);
  EXPECT_THAT(udp.WaitForDatagrams(expected.size()), ElementsAreArray(expected));
}

TEST_P(AgentForwardSeveral, CountersArePrintedForEach) {
  LoopbackTcpServer tcp;
  LoopbackUdpServer udp;
  const ProcessResult result =
      m_installation.Run(ForwardTo({TcpUrl(tcp.Port()), UdpUrl(udp.Port())}, Further()), "one\ntwo\n");
  const std::vector<std::string> ofTcp = {"destination",   "messages-submitted", "bytes-submitted", "messages-sent",
                                          "bytes-sent",    "messages-truncated", "bytes-truncated", "messages-dropped",
                                          "bytes-dropped", "queue-size",         "refused",         "refused-closed",
                                          "unsent",        "events-per-second"};
  std::vector<std::string> ofUdp = ofTcp;
  ofUdp.insert(std::find(ofUdp.begin(), ofUdp.end(), "refused"), "consecutive-send-failures");
  std::vector<std::string> expected = ofTcp;
  expected.insert(expected.end(), ofUdp.begin(), ofUdp.end());
  expected.insert(expected.end(), {"events-read", "seconds"});
  EXPECT_THAT(Keys(result.output), ElementsAreArray(expected));
  EXPECT_EQ(Value(BlockOf(result.output, TcpUrl(tcp.Port())), "bytes-sent"), "8");
  EXPECT_EQ(Value(BlockOf(result.output, UdpUrl(udp.Port())), "bytes-sent"), "6");
  EXPECT_EQ(Value(result.output, "events-read"), "2");
}

TEST_P(AgentForwardSeveral, OneThatIsGivenUpLeavesTheOthersTheirEvents) {
  const std::string lines = MakeLines(manyLines);
  const std::string input = m_installation.Directory().Write("input.log", lines).string();
  LoopbackTcpServer live;
  const RefusingPort refusing;
  const std::string dead = TcpUrl(refusing.Port());
  const ProcessResult result =
      m_installation.Run(ForwardTo({dead, TcpUrl(live.Port())}, Further({"--give-up-after", "0.1", input})));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(live.WaitForBytes(lines.size()) == lines);
  const std::string counters = BlockOf(result.output, dead);
  EXPECT_EQ(Number(counters, "messages-sent"), 0);
  EXPECT_EQ(Number(counters, "unsent") + Number(counters, "messages-dropped"), static_cast<long>(manyLines));
}

TEST_P(AgentForwardSeveral, WithoutAnyThatTakesThemEventsAreNotRead) {
  const std::string lines = MakeLines(manyLines);
  const std::string input = m_installation.Directory().Write("input.log", lines).string();
  const RefusingPort refusing;
  const RefusingPort otherRefusing;
  const ProcessResult result = m_installation.Run(
      ForwardTo({TcpUrl(refusing.Port()), TcpUrl(otherRefusing.Port())}, Further({"--give-up-after", "0.1", input})));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("gave up sending; what follows in " + Logged(input) + " was not read"));
  EXPECT_LT(Number(result.output, "events-read"), static_cast<long>(manyLines));
}

TEST(AgentForward, QueuedDestinationsThatTakeNothingDoNotStopTheOthers) {
  const std::string lines = MakeLines(manyLines);
  const Installation installation;
  const std::string input = installation.Directory().Write("input.log", lines).string();
  LoopbackTcpServer live;
  LoopbackTcpServer stuck(Hold, 0, 65536);
  const RefusingPort refusing;
  const std::string dead = TcpUrl(refusing.Port());
  const ProcessResult result =
      installation.Run(ForwardTo({TcpUrl(stuck.Port()), dead, TcpUrl(live.Port())}, {"--queued", input}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(live.WaitForBytes(lines.size()) == lines);
  EXPECT_EQ(Value(BlockOf(result.output, TcpUrl(live.Port())), "unsent"), "0");
  for (const std::string& url : {TcpUrl(stuck.Port()), dead}) {
    const std::string counters = BlockOf(result.output, url);
    EXPECT_GE(Number(counters, "refused"), 1) << url;
    EXPECT_GT(Number(counters, "unsent"), static_cast<long>(manyLines) / 2) << url;
    EXPECT_EQ(Number(counters, "messages-sent") + Number(counters, "messages-dropped") + Number(counters, "unsent"),
              static_cast<long>(manyLines))
        << url;
  }
}

TEST(AgentForward, QueuedDestinationThatIsOnlySlowGetsEverything) {
  const std::string lines = MakeLines(manyLines);
  const Installation installation;
  const std::string input = installation.Directory().Write("input.log", lines).string();
  LoopbackTcpServer live;
  LoopbackTcpServer slow(
      [](LoopbackTcpServer& self, ServerConnection& connection, int) {
        for (std::string part; connection.ReadSome(part, 65536); part.clear()) {
          self.AddReceived(part);
          std::this_thread::sleep_for(5ms);
        }
      },
      0, 65536);
  const ProcessResult result =
      installation.Run(ForwardTo({TcpUrl(slow.Port()), TcpUrl(live.Port())}, {"--queued", input}));
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(live.WaitForBytes(lines.size()) == lines);
  EXPECT_TRUE(slow.WaitForBytes(lines.size()) == lines);
}

TEST(AgentForward, TerminationReachesSeveralDestinations) {
  for (const bool queued : {false, true}) {
    LoopbackTcpServer first;
    LoopbackTcpServer second;
    const Installation installation;
    const std::vector<std::string> further = queued ? std::vector<std::string>{"--queued"} : std::vector<std::string>{};
    ChildProcess agent(SORVEX_AGENT_PROGRAM,
                       installation.Arguments(ForwardTo({TcpUrl(first.Port()), TcpUrl(second.Port())}, further)));
    ASSERT_TRUE(agent.WriteInput("one\ntwo\nrest"));
    EXPECT_EQ(first.WaitForBytes(8), "one\ntwo\n");
    EXPECT_EQ(second.WaitForBytes(8), "one\ntwo\n");
    agent.RequestEnd();
    EXPECT_EQ(agent.Wait(20s), 1);
    EXPECT_EQ(Value(agent.Output(), "events-read"), "2");
    first.Stop();
    second.Stop();
    EXPECT_EQ(first.Received(), "one\ntwo\n");
    EXPECT_EQ(second.Received(), "one\ntwo\n");
  }
}

TEST(AgentForward, TerminationWithoutAnyDestinationEndsSeveral) {
  const RefusingPort refusing;
  const RefusingPort otherRefusing;
  const Installation installation;
  const std::string input = installation.Directory().Write("input.log", MakeLines(manyLines)).string();
  for (const bool queued : {false, true}) {
    std::vector<std::string> further{"--log-level", "debug", input};
    if (queued) further.emplace_back("--queued");
    ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(ForwardTo(
                                                 {TcpUrl(refusing.Port()), TcpUrl(otherRefusing.Port())}, further)));
    ASSERT_TRUE(WaitUntil([&] { return agent.Errors().find("calling reconnect") != std::string::npos; }));
    agent.RequestEnd();
    EXPECT_EQ(agent.Wait(20s), 1);
    EXPECT_EQ(Value(agent.Output(), "messages-sent"), "0");
  }
}

}  // namespace
}  // namespace sorvex::test
