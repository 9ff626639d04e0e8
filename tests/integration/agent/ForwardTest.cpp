#include "AgentFixture.h"

#include <cstdint>
#include <regex>
#include <string>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> Forward(std::uint16_t port, const std::vector<std::string>& further = {}) {
  return ForwardTo({TcpUrl(port)}, further);
}

TEST(AgentForward, SendsEachLineOfStandardInput) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port()), "one\ntwo\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST(AgentForward, PrintsAllCounters) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port()), "one\ntwo\n");
  EXPECT_THAT(Keys(result.output),
              ElementsAre("messages-submitted", "bytes-submitted", "messages-sent", "bytes-sent", "messages-truncated",
                          "bytes-truncated", "messages-dropped", "bytes-dropped", "queue-size", "refused",
                          "refused-closed", "unsent", "events-read", "seconds", "events-per-second"));
  EXPECT_EQ(Value(result.output, "messages-submitted"), "2");
  EXPECT_EQ(Value(result.output, "bytes-submitted"), "6");
  EXPECT_EQ(Value(result.output, "messages-sent"), "2");
  EXPECT_EQ(Value(result.output, "bytes-sent"), "8");
  EXPECT_EQ(Value(result.output, "events-read"), "2");
  EXPECT_EQ(Value(result.output, "unsent"), "0");
}

TEST(AgentForward, WritesNoProgressWithoutATerminal) {
  LoopbackTcpServer server;
  EXPECT_EQ(Installation().Run(Forward(server.Port()), "one\n").errors, "");
}

TEST(AgentForward, LastLineNeedsNoLineFeed) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port()), "one\ntwo");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(Value(result.output, "events-read"), "2");
}

TEST(AgentForward, EmptyLinesAreEvents) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port(), {"--queued"}), "\n\na\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(server.WaitForBytes(4), "\n\na\n");
}

TEST(AgentForward, EmptyInputSendsNothing) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port()));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Value(result.output, "events-read"), "0");
}

TEST(AgentForward, CarriageReturnBelongsToTheText) {
  LoopbackTcpServer server;
  Installation().Run(Forward(server.Port()), "one\r\ntwo\r\n");
  EXPECT_EQ(server.WaitForBytes(10), "one\r\ntwo\r\n");
}

class AgentForwardStrategy : public testing::TestWithParam<bool> {
 protected:
  static std::vector<std::string> Further(std::vector<std::string> further = {}) {
    if (GetParam()) further.emplace_back("--queued");
    return further;
  }
};

TEST_P(AgentForwardStrategy, AnyBytePassesUnchanged) {
  std::string line;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') line += static_cast<char>(byte);
  }
  line += "\xC3(\xF0\x28\x8C\xBC\n";
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port(), Further()), line + line);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(server.WaitForBytes(2 * line.size()), line + line);
}

TEST_P(AgentForwardStrategy, LinesAcrossReadBlocksStayWhole) {
  std::string input;
  for (int number = 0; input.size() < 5'000'000; ++number) {
    input += std::to_string(number) + std::string(static_cast<std::size_t>(number * 7919 % 1000), 'x') + "\n";
  }
  LoopbackTcpServer server;
  const Installation installation;
  const std::filesystem::path file = installation.Directory().Write("input.log", input);
  const ProcessResult result = installation.Run(Forward(server.Port(), Further({file.string()})));
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(server.WaitForBytes(input.size()) == input);
}

TEST_P(AgentForwardStrategy, DestinationThatIsNotThereEndsWithGiveUp) {
  const RefusingPort refusing;
  const ProcessResult result =
      Installation().Run(Forward(refusing.Port(), Further({"--give-up-after", "0.1"})), "one\ntwo\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "messages-sent"), "0");
}

INSTANTIATE_TEST_SUITE_P(Strategies, AgentForwardStrategy, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& test) { return test.param ? "Queued" : "Blocking"; });

TEST(AgentForward, LongLineIsTruncatedInTheQueue) {
  const std::string line(10 * 1024 * 1024, 'x');
  LoopbackTcpServer server;
  const ProcessResult result =
      Installation().Run(Forward(server.Port(), {"--queued", "--set", "MaxPayloadSize=4000"}), line + "\nshort\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Value(result.output, "messages-truncated"), "1");
  EXPECT_EQ(Value(result.output, "bytes-truncated"), std::to_string(line.size() - 4000));
  EXPECT_TRUE(server.WaitForBytes(4007) == line.substr(0, 4000) + "\nshort\n");
}

TEST(AgentForward, LongLinePassesWholeInTheBlockingStrategy) {
  const std::string line = std::string(10 * 1024 * 1024, 'x') + "\n";
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port()), line);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(server.WaitForBytes(line.size()) == line);
}

TEST(AgentForward, ReadsFilesInOrderAndStandardInputInTheirMidst) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::string first = installation.Directory().Write("erste ä.log", "a\n").string();
  const std::string last = installation.Directory().Write("info", "c").string();
  const ProcessResult result = installation.Run(Forward(server.Port(), {first, "-", last}), "b\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(server.WaitForBytes(6), "a\nb\nc\n");
}

TEST(AgentForward, FileThatCannotBeReadIsNamedAndTheOthersAreSent) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::string file = installation.Directory().Write("a.log", "a\n").string();
  const ProcessResult result = installation.Run(Forward(server.Port(), {"/nowhere/b.log", file}));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("/nowhere/b.log"));
  EXPECT_EQ(server.WaitForBytes(2), "a\n");
}

TEST(AgentForward, SyslogMessageNamesTheFile) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::string file = installation.Directory().Write("app.log", "hello\n").string();
  EXPECT_EQ(installation.Run({"forward", "--to", TcpUrl(server.Port()), file}).status, 0);
  ASSERT_TRUE(WaitUntil([&] { return server.Received().ends_with('\n'); }));
  const std::regex message("<14>1 [0-9T:.-]+Z [^ ]+ app.log - - - hello\n");
  EXPECT_TRUE(std::regex_match(server.Received(), message)) << server.Received();
}

TEST(AgentForward, UnknownBuilderIsNamed) {
  LoopbackTcpServer server;
  const ProcessResult result =
      Installation().Run({"forward", "--to", TcpUrl(server.Port()), "--builder", "Fancy"}, "a\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("there is no payload builder Fancy"));
}

TEST(AgentForward, SetReachesTheSocket) {
  LoopbackTcpServer server;
  Installation().Run(Forward(server.Port(), {"--set", "AppendLineFeed=false"}), "a\nb\n");
  EXPECT_EQ(server.WaitForBytes(2), "ab");
}

TEST(AgentForward, EventsThatAFullQueueRefusesAreSentLater) {
  std::string input;
  while (input.size() < 20'000'000) input += std::string(1000, 'x') + "\n";
  // The queue holds a twentieth of it, and refuses payloads that did not fit for five seconds.
  constexpr auto longerThanTheQueueWaits = 8s;
  LoopbackTcpServer server(
      [&](LoopbackTcpServer& self, ServerConnection& connection, int) {
        std::this_thread::sleep_for(longerThanTheQueueWaits);
        for (std::string part; connection.ReadSome(part, 65536); part.clear()) self.AddReceived(part);
      },
      0, 65536);
  const ProcessResult result = Installation().Run(Forward(server.Port(), {"--queued"}), input);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(Value(result.output, "refused"), "0");
  EXPECT_EQ(Value(result.output, "unsent"), "0");
  EXPECT_TRUE(server.WaitForBytes(input.size()) == input);
}

TEST(AgentForward, TerminationSendsWholeLinesAndNoPieceOfOne) {
  for (const bool queued : {false, true}) {
    LoopbackTcpServer server;
    const Installation installation;
    const std::vector<std::string> further = queued ? std::vector<std::string>{"--queued"} : std::vector<std::string>{};
    ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(Forward(server.Port(), further)));
    ASSERT_TRUE(agent.WriteInput("one\ntwo\nrest"));
    EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
    agent.RequestEnd();
    EXPECT_EQ(agent.Wait(20s), 1);
    EXPECT_EQ(Value(agent.Output(), "events-read"), "2");
    EXPECT_EQ(Value(agent.Output(), "messages-sent"), "2");
    EXPECT_THAT(agent.Errors(), HasSubstr("asked to end; what follows in stdin was not read"));
    server.Stop();
    EXPECT_EQ(server.Received(), "one\ntwo\n");
  }
}

TEST(AgentForward, TerminationWithoutDestinationTellsWhatWasNotSent) {
  const Installation installation;
  const RefusingPort refusing;
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(Forward(refusing.Port(), {"--log-level", "debug"})));
  ASSERT_TRUE(agent.WriteInput("one\ntwo\n"));
  ASSERT_TRUE(WaitUntil([&] { return agent.Errors().find("calling reconnect") != std::string::npos; }));
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(20s), 1);
  EXPECT_EQ(Value(agent.Output(), "messages-sent"), "0");
}

TEST(AgentForward, TerminationDropsWhatASlowReceiverTakesTooLongFor) {
  // Less than a hundred kilobytes a second, but always some.
  LoopbackTcpServer server(
      [](LoopbackTcpServer& self, ServerConnection& connection, int) {
        for (std::string part; !self.IsStopped() && connection.ReadSome(part, 4096); part.clear()) {
          self.AddReceived(part);
          std::this_thread::sleep_for(50ms);
        }
      },
      0, 16384);
  const Installation installation;
  std::string lines;
  while (lines.size() < 900'000) lines += std::string(999, 'x') + "\n";
  const std::string file = installation.Directory().Write("input.log", lines).string();
  // All of it fits into the queue.
  ChildProcess agent(SORVEX_AGENT_PROGRAM,
                     installation.Arguments(
                         Forward(server.Port(), {"--queued", "--set", "Socket.QueueHighWaterMark=20000000", file})));
  server.WaitForBytes(16384);
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(6s), 1);
  EXPECT_EQ(Value(agent.Output(), "queue-size"), "0");
  EXPECT_EQ(Value(agent.Output(), "events-read"), "900");
  EXPECT_EQ(std::stol(Value(agent.Output(), "messages-sent")) + std::stol(Value(agent.Output(), "messages-dropped")),
            900);
  EXPECT_THAT(agent.Errors(), HasSubstr(" (they were still queued at the end)"));
}

TEST(AgentForward, TerminationLeavesFurtherFilesUnread) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::string file = installation.Directory().Write("later.log", "later\n").string();
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(Forward(server.Port(), {"-", file})));
  ASSERT_TRUE(agent.WriteInput("one\n"));
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(20s), 1);
  EXPECT_THAT(agent.Errors(), HasSubstr("asked to end; what follows in stdin was not read"));
  EXPECT_THAT(agent.Errors(), testing::Not(HasSubstr("later.log")));
  server.Stop();
  EXPECT_EQ(server.Received(), "one\n");
}

TEST(AgentForward, EventsGivenUpAtTheEndAreToldWithTheReason) {
  const RefusingPort refusing;
  const std::string url = TcpUrl(refusing.Port());
  const ProcessResult given = Installation().Run(ForwardTo({url}, {"--give-up-after", "0.2"}), "one\n");
  EXPECT_THAT(given.errors, HasSubstr(url + ": events not sent: 1 (given up, nothing could be sent for 0.2 seconds)"));
  const ProcessResult queued = Installation().Run(ForwardTo({url}, {"--queued"}), "one\ntwo\n");
  EXPECT_EQ(queued.status, 1);
  EXPECT_THAT(queued.errors, HasSubstr(url + ": events not sent: 2 (they were still queued at the end)"));
}

TEST(AgentForward, EmptyPayloadsWithoutLineFeedAreNotTriedForEver) {
  LoopbackTcpServer server;
  const ProcessResult result = Installation().Run(Forward(server.Port(), {"--set", "AppendLineFeed=no"}), "a\n\nb\n");
  EXPECT_EQ(server.WaitForBytes(2), "ab");
  EXPECT_EQ(Value(result.output, "events-read"), "3");
}

TEST(AgentForward, DestinationThatGoesAwayDoesNotEndTheAgent) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index == 0) {
      self.AddReceived(connection.ReadExactly(2));
      connection.Reset();
      return;
    }
    for (std::string part; connection.ReadSome(part, 65536); part.clear()) self.AddReceived(part);
  });
  const Installation installation;
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(Forward(server.Port())));
  ASSERT_TRUE(agent.WriteInput("a\n"));
  EXPECT_EQ(server.WaitForBytes(2), "a\n");
  // What is sent until the reset has been noticed may be lost; something must arrive after it.
  ASSERT_TRUE(WaitUntil([&] { return agent.WriteInput("b\n") && server.Received().size() >= 4; }));
  agent.CloseInput();
  EXPECT_TRUE(agent.Wait(20s).has_value());
  EXPECT_GE(server.Connections(), 2);
}

}  // namespace
}  // namespace sorvex::test
