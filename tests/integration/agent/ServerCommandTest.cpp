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

}  // namespace
}  // namespace sorvex::test
