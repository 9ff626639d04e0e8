// The agent and the reference configuration server, two programs that share no protocol code.
#include "ServedAgent.h"

#include <algorithm>

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationDigest = "dbdedaf012bb556acd82cb106d1a8a78";

const std::vector<std::string> registration{"register", "--os-version", "Debian 12", "--agent-version", "7.2.5"};
const std::vector<std::string> statusReport{"update-status", "--status", "2", "--time", "1795209053"};

std::string Outcome(const char* result, const char* errorCode, const char* resultCode, const char* message) {
  return std::string("result: ") + result + "\nerror-code: " + errorCode + "\nresult-code: " + resultCode +
         "\nerror-message: " + message + "\n";
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

class AgentWithServer : public testing::TestWithParam<const char*> {
 protected:
  bool IsVersion2() const { return std::string(GetParam()) == "2.0"; }
  ServedAgent m_agent{{"--wire-version", GetParam()}};
};

TEST_P(AgentWithServer, RegistersAndReportsItsStatus) {
  EXPECT_EQ(m_agent.Run({"test-connection"}).output, Outcome("true", "0", "0", "Success"));
  EXPECT_FALSE(m_agent.Server().Has("agents/agent-7"));
  m_agent.Directory().Write("install_config_autocreate.txt",
                            std::string("\xFF\xFE"
                                        "A\0u\0t\0o\0C\0r\0e\0a\0t\0i\0o\0n\0.\0K\0=\0v\0\n\0",
                                        36));
  EXPECT_EQ(m_agent.Run(registration).output, Outcome("true", "0", "1", "Success"));
  EXPECT_EQ(m_agent.Run(registration).output, Outcome("true", "0", "2", "Success"));
  EXPECT_EQ(m_agent.Run(statusReport).output, Outcome("true", "0", "0", "Success"));
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/registration.txt"),
              HasSubstr("os-version: Debian 12\nagent-version: 7.2.5\nauto-creation: AutoCreation.K=v\n"));
  EXPECT_THAT(m_agent.Server().Read("agents/agent-7/status.txt"), HasSubstr("status: 2\ntime: 2026-11-20T21:10:53Z"));
  EXPECT_THAT(m_agent.Server().Log(), Not(HasSubstr(token)));
}

TEST_P(AgentWithServer, FetchesItsConfiguration) {
  m_agent.Server().Write("default/AgentConfig.xml", configuration);
  const ProcessResult result = m_agent.Fetch({"fetch-configuration"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, Outcome("true", "0", "0", "Success") + "bytes: 14\nmd5: " + configurationDigest + "\n");
  EXPECT_EQ(m_agent.FileContent(), configuration);

  // Once the agent has it, the server no longer needs it.
  m_agent.Directory().Write("AgentConfig.md5", std::string(configurationDigest) + "\r\n");
  const ProcessResult again = m_agent.Fetch({"fetch-configuration"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.output, Outcome("true", "0", "5", "Success") + "update: none\n");
  EXPECT_EQ(Value(m_agent.Run({"fingerprint"}).output, "fingerprint"), configurationDigest);
}

TEST_P(AgentWithServer, FetchesAPatch) {
  std::string patch;
  for (int i = 0; patch.size() < 3000000; ++i) patch += std::to_string(i);
  m_agent.Server().Write("patches/core.tar.gz", patch);
  const ProcessResult result = m_agent.Fetch({"fetch-patch", "Agent", "Core"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(Value(result.output, "bytes"), std::to_string(patch.size()));
  EXPECT_TRUE(m_agent.FileContent() == patch);
  EXPECT_THAT(m_agent.Server().Log(), HasSubstr("patch: 5 no update needed, x64_72_agent\n"));
}

TEST_P(AgentWithServer, SaysThatUpdatesAreBlocked) {
  m_agent.Server().Write("default/AgentConfig.xml", configuration);
  m_agent.Server().Write("agents/agent-7/updates-disabled", "");
  const ProcessResult result = m_agent.Run({"fingerprint"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Value(result.output, "update-blocked"), "true");
  EXPECT_EQ(Value(m_agent.Fetch({"fetch-configuration"}).output, "update"), "disabled");
}

TEST_P(AgentWithServer, GetsTheServersKeyIn2) {
  const ProcessResult result = m_agent.Fetch({"server-key"});
  EXPECT_EQ(result.status, IsVersion2() ? 0 : 1);
  EXPECT_EQ(m_agent.FileContent().size(), IsVersion2() ? 91u : 0u);
}

TEST_P(AgentWithServer, RemembersTheServersVersion) {
  std::vector<std::string> command = statusReport;
  command.insert(command.end(), {"--repeat", "3"});
  EXPECT_EQ(m_agent.Run(command).status, 0);
  EXPECT_EQ(Count(m_agent.Server().Log(), "this server speaks 1.0"), IsVersion2() ? 0u : 1u);
  EXPECT_EQ(Count(m_agent.Server().Log(), "connect: 0 success"), 3u);
}

INSTANTIATE_TEST_SUITE_P(Wire, AgentWithServer, testing::Values("1.0", "2.0"),
                         [](const testing::TestParamInfo<const char*>& test) {
                           return std::string("Version") + test.param[0];
                         });

TEST(AgentAndServer, KeyIsTheOneThatIsShown) {
  ServedAgent agent;
  ASSERT_EQ(agent.Run(statusReport).status, 0);
  std::string hex;
  for (const char byte : agent.Server().Read("agents/agent-7/key.der")) {
    hex += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  EXPECT_EQ(hex, agent.Key());
}

TEST(AgentAndServer, TokenDecides) {
  ServedAgent agent;
  agent.Server().Write("tokens.txt", "another\n");
  EXPECT_EQ(agent.Run(statusReport).output,
            Outcome("false", "-2147483643", "-2147483643",
                    "The authentication information presented to the server was rejected"));
  agent.Server().Write("tokens.txt", std::string(token) + "\n");
  EXPECT_EQ(agent.Run(statusReport).status, 0);
}

TEST(AgentAndServer, ProtectedTokenIsTheToken) {
  const ContainerRemoval removal;
  ServedAgent agent;
  agent.Server().Write("tokens.txt", std::string(token) + "\n");
  const std::string secured = Value(agent.Run({"token", "protect", token}).output, "secured-token");
  const std::string lines = TemporaryDirectory::Read(agent.Directory().Path() / "install_config.txt");
  std::string changed = lines;
  changed.replace(changed.find(token), std::string(token).size(), secured);
  agent.Directory().Write("install_config.txt", changed);
  EXPECT_EQ(agent.Run(statusReport).status, 0);
}

TEST(AgentAndServer, WithoutAServerFails) {
  ServedAgent agent;
  ASSERT_EQ(agent.Run(statusReport).status, 0);
  // On another port than before.
  agent.Server().Start();
  EXPECT_EQ(agent.Run(statusReport).output,
            Outcome("false", "-2147483641", "-2147483641", "The socket connection to the server failed"));
}

constexpr const char* noAnswer =
    "The configuration server did not respond within a reasonable amount of time or the connection was terminated "
    "unexpectedly";

struct FaultCase {
  const char* name;
  std::vector<std::string> server;
  std::vector<std::string> command;
  bool isMet;                   ///< the agent succeeds in spite of it
  const char* laterCode = "0";  ///< the result code once the server is well
};

void PrintTo(const FaultCase& fault, std::ostream* out) { *out << fault.name; }

class AgentWithFault : public testing::TestWithParam<FaultCase> {};

TEST_P(AgentWithFault, FailsAsToldAndGoesOnWhenTheServerIsWell) {
  std::vector<std::string> arguments = GetParam().server;
  arguments.insert(arguments.end(), {"--fault-times", "1"});
  ServedAgent agent(arguments, "ConfigurationServerReadTimeout=1\n");
  agent.Server().Write("default/AgentConfig.xml", configuration);
  agent.Server().Write("patches/core.tar.gz", std::string(100000, 'x'));
  std::vector<std::string> command = GetParam().command;
  command.insert(command.end(), {"--repeat", "2"});
  const bool isFetch = command.front().starts_with("fetch");
  const ProcessResult result = isFetch ? agent.Fetch(command) : agent.Run(command);
  EXPECT_EQ(result.status, GetParam().isMet ? 0 : 1) << result.errors;

  const std::size_t second = result.output.find("result: ", 1);
  ASSERT_NE(second, std::string::npos) << result.output;
  const std::string first = result.output.substr(0, second);
  if (GetParam().isMet) {
    EXPECT_THAT(first, HasSubstr(Outcome("true", "0", "0", "Success")));
  } else {
    EXPECT_EQ(first, Outcome("false", "-2147483644", "-2147483644", noAnswer));
  }
  // The last error stays; the result is that of the second run.
  const std::string last = result.output.substr(second);
  EXPECT_EQ(Value(last, "result"), "true");
  EXPECT_EQ(Value(last, "result-code"), GetParam().laterCode);
}

const std::vector<std::string> fetchPatch{"fetch-patch", "core"};
const std::vector<std::string> fetchConfiguration{"fetch-configuration"};
const std::vector<std::string> testConnection{"test-connection"};

INSTANTIATE_TEST_SUITE_P(
    Kinds, AgentWithFault,
    testing::Values(
        FaultCase{"Late", {"--fault", "late:3", "--fault-on", "status"}, statusReport, false},
        FaultCase{"LateAtTheStart", {"--fault", "late:3", "--fault-on", "connect"}, statusReport, false},
        FaultCase{"Cut", {"--fault", "cut:17", "--fault-on", "status"}, statusReport, false},
        FaultCase{"CutAtTheStart", {"--fault", "cut:17", "--fault-on", "connect"}, statusReport, false},
        FaultCase{"CutInARegistration", {"--fault", "cut:17", "--fault-on", "register"}, registration, false, "2"},
        FaultCase{"CutInATest", {"--fault", "cut:17", "--fault-on", "connect"}, testConnection, false},
        FaultCase{
            "CutInAConfiguration", {"--fault", "cut:150", "--fault-on", "configuration"}, fetchConfiguration, false},
        FaultCase{
            "LateConfiguration", {"--fault", "late:10", "--fault-on", "configuration"}, fetchConfiguration, false},
        FaultCase{"LatePatch", {"--fault", "late:10", "--fault-on", "patch"}, fetchPatch, false},
        FaultCase{
            "ClosedInsteadOfAPatch", {"--fault", "close-after-request", "--fault-on", "patch"}, fetchPatch, false},
        FaultCase{"CutInAPatch", {"--fault", "cut:50000", "--fault-on", "patch"}, fetchPatch, false},
        FaultCase{"ByteByByte", {"--fault", "byte-by-byte:1", "--fault-on", "configuration"}, fetchConfiguration, true},
        FaultCase{"WrongTypeAtTheStart", {"--fault", "wrong-type", "--fault-on", "connect"}, statusReport, false},
        FaultCase{"WrongTypeLater", {"--fault", "wrong-type", "--fault-on", "status"}, statusReport, true},
        FaultCase{"OversizedString", {"--fault", "oversized-string", "--fault-on", "status"}, statusReport, false},
        FaultCase{"OversizedStringAtTheStart", {"--fault", "oversized-string"}, statusReport, false},
        FaultCase{"OversizedConfiguration", {"--fault", "oversized-binary"}, fetchConfiguration, false},
        FaultCase{"OversizedPatch", {"--fault", "oversized-binary"}, fetchPatch, false},
        FaultCase{"CloseAfterRequest", {"--fault", "close-after-request"}, statusReport, false},
        FaultCase{"Speaks1", {"--fault", "speaks-1.0"}, statusReport, true},
        FaultCase{"Speaks1TypeOnly", {"--fault", "speaks-1.0-type-only"}, statusReport, true}),
    [](const testing::TestParamInfo<FaultCase>& test) { return test.param.name; });

TEST(AgentAndServer, FingerprintIsTheLocalOneWhenTheExchangeFails) {
  ServedAgent agent({"--fault", "close-after-request", "--fault-on", "configuration", "--fault-times", "1"});
  agent.Directory().Write("AgentConfig.md5", std::string(configurationDigest) + "\n");
  const ProcessResult result = agent.Run({"fingerprint", "--repeat", "2"});
  EXPECT_EQ(result.status, 1);
  const std::size_t second = result.output.find("fingerprint: ", 1);
  ASSERT_NE(second, std::string::npos) << result.output;
  EXPECT_EQ(Value(result.output, "fingerprint"), configurationDigest);
  EXPECT_EQ(Value(result.output, "error-code"), "-2147483644");
  EXPECT_EQ(Value(result.output.substr(second), "result-code"), "5");
}

TEST(AgentAndServer, WrongDigestIsRefusedByTheAgent) {
  ServedAgent agent({"--fault", "wrong-digest", "--fault-times", "1"});
  agent.Server().Write("default/AgentConfig.xml", configuration);
  const ProcessResult result = agent.Fetch({"fetch-configuration"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, Outcome("false", "0", "0", "Success"));
  EXPECT_FALSE(std::filesystem::exists(agent.File()));
  EXPECT_EQ(agent.Fetch({"fetch-configuration"}).status, 0);
}

TEST(AgentAndServer, BusyServerIsToldOf) {
  ServedAgent agent({"--max-agents", "0"});
  EXPECT_EQ(agent.Run(statusReport).output,
            Outcome("false", "-2147483646", "-2147483646", "Server too busy; try again later"));
}

}  // namespace
}  // namespace sorvex::test
