// The end of commands whose module never returns.
#include "AgentFixture.h"

#include <chrono>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using SteadyClock = std::chrono::steady_clock;

/// More than an interrupted program takes, and far less than one that hangs.
constexpr auto endLimit = 6s;

std::vector<std::string> WithStuckModule(std::vector<std::string> command) {
  command.insert(command.begin(), {"--module", SORVEX_STUCK_MODULE});
  return command;
}

class AgentTerminationOfStuckCommand : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(AgentTerminationOfStuckCommand, EndsItWithAnError) {
  const Installation installation;
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(WithStuckModule(GetParam())));
  // It never ends by itself, and has installed its handler by now even on a busy machine.
  EXPECT_EQ(agent.Wait(1s), std::nullopt);
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(endLimit), 130);
  EXPECT_THAT(agent.Errors(), HasSubstr("asked to end; the command was cut short"));
  EXPECT_EQ(agent.Output(), "");
}

INSTANTIATE_TEST_SUITE_P(Commands, AgentTerminationOfStuckCommand,
                         testing::Values(std::vector<std::string>{"test-connection"},
                                         std::vector<std::string>{"heartbeat"}, std::vector<std::string>{"fingerprint"},
                                         std::vector<std::string>{"register", "--os-version", "12", "--agent-version",
                                                                  "7"},
                                         std::vector<std::string>{"update-status", "--status", "1", "--time", "1"}),
                         [](const testing::TestParamInfo<std::vector<std::string>>& test) {
                           std::string name = test.param.front();
                           std::erase(name, '-');
                           return name;
                         });

TEST(AgentForward, TerminationPrintsCountersThoughNothingEnds) {
  for (const std::vector<std::string>& urls :
       {std::vector<std::string>{TcpUrl(1)}, std::vector<std::string>{TcpUrl(1), UdpUrl(1)}}) {
    const Installation installation;
    ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(WithStuckModule(ForwardTo(urls))));
    ASSERT_TRUE(agent.WriteInput("one\n"));
    EXPECT_EQ(agent.Wait(1s), std::nullopt);
    agent.RequestEnd();
    EXPECT_EQ(agent.Wait(endLimit), 1);
    EXPECT_EQ(Value(agent.Output(), "events-read"), "1");
    EXPECT_EQ(Value(agent.Output(), "messages-submitted"), "1");
    EXPECT_EQ(Value(agent.Output(), "messages-sent"), "0");
  }
}

}  // namespace
}  // namespace sorvex::test
