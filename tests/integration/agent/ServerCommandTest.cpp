#include "AgentFixture.h"

namespace sorvex::test {
namespace {

constexpr const char* success = "error-code: 0\nresult-code: 0\nerror-message: Success\n";

TEST(AgentServerCommand, TestConnectionSucceedsStandAlone) {
  const ProcessResult result = Installation().Run({"test-connection"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, std::string("result: true\n") + success);
}

TEST(AgentServerCommand, RegisterSucceedsStandAlone) {
  const ProcessResult result = Installation().Run({"register", "--os-version", "12", "--agent-version", "7.2.5"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, std::string("result: true\n") + success);
}

TEST(AgentServerCommand, UpdateStatusSucceedsStandAlone) {
  const ProcessResult result = Installation().Run({"update-status", "--status", "-1", "--time", "1795212000"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, std::string("result: true\n") + success);
}

TEST(AgentServerCommand, HeartbeatIsRefusedStandAlone) {
  const ProcessResult result = Installation().Run({"heartbeat"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, std::string("result: false\n") + success);
}

TEST(AgentServerCommand, FingerprintIsThatOfTheConfigurationFile) {
  const Installation installation;
  installation.Directory().Write("AgentConfig.xml", "hello");
  const ProcessResult result = installation.Run({"fingerprint"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            std::string("fingerprint: 5d41402abc4b2a76b9719d911017c592\nupdate-blocked: false\n") + success);
}

TEST(AgentServerCommand, FingerprintWithoutConfigurationFileIsAFailure) {
  const ProcessResult result = Installation().Run({"fingerprint"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, std::string("fingerprint: \nupdate-blocked: false\n") + success);
}

class AgentWithoutServer : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(AgentWithoutServer, CommandFailsAndTellsTheCodes) {
  const Installation installation(
      "ConfigurationServer=127.0.0.1\nConfigurationServerPort=" + std::to_string(UnusedPort()) + "\n");
  const ProcessResult result = installation.Run(GetParam());
  EXPECT_EQ(result.status, 1);
  // No certificate to trust is there, and none can be fetched.
  EXPECT_EQ(Value(result.output, "result-code"), "-2147483645");
  EXPECT_EQ(Value(result.output, "error-code"), "-2147483645");
}

INSTANTIATE_TEST_SUITE_P(Commands, AgentWithoutServer,
                         testing::Values(std::vector<std::string>{"test-connection"},
                                         std::vector<std::string>{"fingerprint"},
                                         std::vector<std::string>{"register", "--os-version", "12", "--agent-version",
                                                                  "7"},
                                         std::vector<std::string>{"update-status", "--status", "1", "--time", "1"}),
                         [](const testing::TestParamInfo<std::vector<std::string>>& test) {
                           std::string name = test.param.front();
                           std::erase(name, '-');
                           return name;
                         });

}  // namespace
}  // namespace sorvex::test
