#include "AgentFixture.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

ProcessResult RunAgent(const std::vector<std::string>& arguments) {
  return RunProcess(SORVEX_AGENT_PROGRAM, arguments);
}

TEST(AgentCommandLine, HelpGoesToStandardOutput) {
  const ProcessResult result = RunAgent({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("test-connection"));
  EXPECT_EQ(result.errors, "");
}

TEST(AgentCommandLine, NeedsACommand) {
  const ProcessResult result = RunAgent({});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("A command is required"));
}

struct WrongUsage {
  const char* name;
  std::vector<std::string> arguments;
  const char* message;
};

void PrintTo(const WrongUsage& usage, std::ostream* out) { *out << usage.name; }

class AgentUsage : public testing::TestWithParam<WrongUsage> {};

TEST_P(AgentUsage, IsRefusedWithStatusTwo) {
  const ProcessResult result = RunAgent(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, AgentUsage,
    testing::Values(
        WrongUsage{"UnknownCommand", {"fly"}, "fly"}, WrongUsage{"TwoCommands", {"info", "heartbeat"}, "heartbeat"},
        WrongUsage{"ParameterWithoutName", {"parameter"}, "NAME"},
        WrongUsage{"PairWithoutValue", {"--parameter", "alone", "info"}, "'alone' is not KEY=VALUE"},
        WrongUsage{"PairWithoutKey", {"--parameter", "=value", "info"}, "'=value' is not KEY=VALUE"},
        WrongUsage{"LogLevel", {"--log-level", "loud", "info"}, "loud"},
        WrongUsage{"RegisterWithoutVersion", {"register", "--os-version", "1"}, "--agent-version"},
        WrongUsage{"StatusIsNoNumber", {"update-status", "--status", "well", "--time", "1"}, "well"},
        WrongUsage{"ForwardWithoutDestination", {"forward"}, "--to"},
        WrongUsage{
            "UnknownScheme", {"forward", "--to", "tls.1://a:1"}, "unknown scheme 'tls.1'; there are: tcp, tls, udp"},
        WrongUsage{"SecondOfTwoDestinations", {"forward", "--to", "tcp://a:1", "--to", "b"}, "'b' is not SCHEME"},
        WrongUsage{"TlsWithoutCertificate", {"forward", "--to", "tcp://a:1", "--to", "tls://a:1"}, "--certificate"},
        WrongUsage{"CertificateThatIsNotThere",
                   {"forward", "--to", "tls://a:1", "--certificate", "/nowhere/a.pem"},
                   "/nowhere/a.pem"},
        WrongUsage{"CertificateWithoutTls",
                   {"forward", "--to", "tcp://a:1", "--certificate", "/nowhere/a.pem"},
                   "--certificate: no destination is a tls:// one"},
        WrongUsage{
            "UnknownTlsVersion",
            {"forward", "--to", "tls://a:1", "--min-tls", "TLSv2", "--max-tls", "SSLv3"},
            "The minimum SSL protocol (TLSv2) is unrecognized. The maximum SSL protocol (SSLv3) is unrecognized."},
        WrongUsage{"EmptyTlsRange",
                   {"forward", "--to", "tls://a:1", "--min-tls", "TLSv1.2", "--max-tls", "TLSv1.1"},
                   "The minimum SSL protocol (TLSv1.2) is higher than the maximum SSL protocol (TLSv1.1)."},
        WrongUsage{"DestinationWithoutPort", {"forward", "--to", "tcp://a"}, "'tcp://a' is not SCHEME://HOST:PORT"},
        WrongUsage{"NegativePatience", {"forward", "--to", "tcp://a:1", "--give-up-after", "-1"}, "--give-up-after"}),
    [](const testing::TestParamInfo<WrongUsage>& test) { return test.param.name; });

TEST(AgentCommandLine, OptionsMayFollowTheCommand) {
  const Installation installation;
  const ProcessResult result =
      RunAgent({"parameter", "ApplicationID", "--config-dir", installation.Directory().Path().string()});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "ApplicationID: 7\n");
}

TEST(AgentCommandLine, ModuleThatIsNotThereIsStatusThree) {
  const Installation installation;
  const ProcessResult result = installation.Run({"--module", "/nowhere/module.so", "info"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("cannot load the module /nowhere/module.so"));
}

TEST(AgentCommandLine, LogFileThatCannotBeOpenedIsNamed) {
  const Installation installation;
  const ProcessResult result = installation.Run({"--log-file", "/nowhere/agent.log", "info"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("/nowhere/agent.log"));
}

TEST(AgentCommandLine, LogGoesToTheFile) {
  const Installation installation;
  const std::filesystem::path log = installation.Directory().Path() / "agent.log";
  const ProcessResult result = installation.Run({"--log-file", log.string(), "--log-level", "info", "info"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_THAT(TemporaryDirectory::Read(log), HasSubstr("'stand-alone' mode"));
}

TEST(AgentCommandLine, LogGoesToStandardErrorWithoutAFile) {
  const Installation installation;
  EXPECT_THAT(installation.Run({"--log-level", "info", "info"}).errors, HasSubstr("'stand-alone' mode"));
}

TEST(AgentCommandLine, ConfigurationDirectoryMayHaveAnyName) {
  const Installation installation("ApplicationID=7\n", "Größe 日本 😀");
  const ProcessResult result = installation.Run({"parameter", "ApplicationID"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "ApplicationID: 7\n");
}

TEST(AgentCommandLine, ParametersReachTheModule) {
  const Installation installation("");
  const std::filesystem::path file = installation.Directory().Write("andere Datei ä.txt", "ApplicationID=8\n");
  const ProcessResult result =
      installation.Run({"--parameter", "InstallConfigurationFile=" + file.string(), "parameter", "ApplicationID"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "ApplicationID: 8\n");
}

}  // namespace
}  // namespace sorvex::test
