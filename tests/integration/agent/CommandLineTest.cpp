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

TEST(AgentCommandLine, VersionGoesToStandardOutput) {
  const ProcessResult result = RunAgent({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "sorvex-agent 7.2.5\n");
  EXPECT_EQ(result.errors, "");
}

TEST(AgentCommandLine, NeedsACommand) {
  const ProcessResult result = RunAgent({});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("A command is required"));
}

std::vector<std::string> Forward(const std::string& url, const std::string& option, const std::string& value) {
  return {"forward", "--to", url, option, value};
}

std::vector<std::string> UpdateStatus(const std::string& status, const std::string& time) {
  return {"update-status", "--status", status, "--time", time};
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
        WrongUsage{"UdpToAnIPv6Address", {"forward", "--to", "udp://[::1]:514"}, "udp destinations are IPv4 only"}),
    [](const testing::TestParamInfo<WrongUsage>& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    WrongNumber, AgentUsage,
    testing::Values(
        WrongUsage{"NegativePatience", Forward("tcp://a:1", "--give-up-after", "-1"),
                   "--give-up-after: '-1' is not a number of seconds from 0 to 1000000000\n"},
        WrongUsage{"NoNumberOfSeconds", Forward("tcp://a:1", "--give-up-after", "nan"), "'nan' is not a number"},
        WrongUsage{"InfinitePatience", Forward("tcp://a:1", "--give-up-after", "inf"), "'inf' is not a number"},
        WrongUsage{"EmptyPatience", Forward("tcp://a:1", "--give-up-after", ""), "'' is not a number"},
        WrongUsage{"PatienceTooLong", Forward("tcp://a:1", "--give-up-after", "1e10"), "'1e10' is not a number"},
        WrongUsage{"PatienceWithUnit", Forward("tcp://a:1", "--give-up-after", "2s"), "'2s' is not a number"},
        WrongUsage{"StatusEmpty", UpdateStatus("", "1"), "--status: '' is not a decimal number"},
        WrongUsage{"StatusHexadecimal", UpdateStatus("0x1", "1"), "--status: '0x1' is not a decimal number"},
        WrongUsage{"StatusWithFraction", UpdateStatus("1.5", "1"), "--status: '1.5' is not a decimal number"},
        WrongUsage{"StatusWithBlank", UpdateStatus(" 1", "1"), "--status: ' 1' is not a decimal number"},
        WrongUsage{"StatusTooLarge", UpdateStatus("2147483648", "1"), "--status: '2147483648' is not"},
        WrongUsage{"StatusTooSmall", UpdateStatus("-2147483649", "1"), "--status: '-2147483649' is not"},
        WrongUsage{"TimeEmpty", UpdateStatus("1", ""), "--time: '' is not a decimal number of seconds"},
        WrongUsage{"TimeNoNumber", UpdateStatus("1", "now"), "--time: 'now' is not a decimal number of seconds"},
        WrongUsage{"TimeTooLarge", UpdateStatus("1", "9223372036854775808"), "--time: '9223372036854775808' is not"}),
    [](const testing::TestParamInfo<WrongUsage>& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    WrongSet, AgentUsage,
    testing::Values(
        WrongUsage{"UnknownKey", Forward("tcp://a:1", "--set", "Socket.QueueHighWatermark=1"),
                   "--set: 'Socket.QueueHighWatermark' is no parameter of these destinations; there are: "
                   "Socket.QueueLowWaterMark, Socket.QueueHighWaterMark, Socket.KeepAlive.Enabled, "
                   "Socket.KeepAlive.Time, Socket.KeepAlive.Interval, MaxPayloadSize, AppendLineFeed\n"},
        WrongUsage{"KeyOfAnotherKind", Forward("udp://a:1", "--set", "AppendLineFeed=no"),
                   "'AppendLineFeed' is no parameter of these destinations; there are: Socket.QueueLowWaterMark, "
                   "Socket.QueueHighWaterMark, MaxPayloadSize\n"},
        WrongUsage{"Address", Forward("tcp://a:1", "--set", "TargetAddress=b"), "'TargetAddress' is set by --to"},
        WrongUsage{"Port", Forward("udp://a:1", "--set", "TargetPort=2"), "'TargetPort' is set by --to"},
        WrongUsage{"Certificate", Forward("tls://a:1", "--set", "Certificate=AAAA"),
                   "'Certificate' is set by --certificate"},
        WrongUsage{"Strategy", Forward("tcp://a:1", "--set", "Socket.BlockingSendStrategy=no"),
                   "'Socket.BlockingSendStrategy' is set by --queued"},
        WrongUsage{"Builder", Forward("tcp://a:1", "--set", "PayloadBuilderType=RawPayloadBuilder"),
                   "'PayloadBuilderType' is set by --builder"},
        WrongUsage{"Framing", Forward("tcp://a:1", "--set", "Framing=LineFeed"), "'Framing' is set by --framing"},
        WrongUsage{"UnknownFraming", Forward("tcp://a:1", "--framing", "Lines"), "--framing: Lines not in"},
        WrongUsage{"NoBoolean", Forward("tcp://a:1", "--set", "AppendLineFeed=perhaps"),
                   "AppendLineFeed is 'perhaps'; it takes true, yes, on, 1, false, no, off or 0"},
        WrongUsage{"NoNumber", Forward("tcp://a:1", "--set", "MaxPayloadSize=many"),
                   "MaxPayloadSize is 'many'; it takes a number from 0 to 4294967295"},
        WrongUsage{"NumberTooLarge", Forward("udp://a:1", "--set", "MaxPayloadSize=4294967296"),
                   "MaxPayloadSize is '4294967296'"},
        WrongUsage{"EmptyNumber", Forward("tcp://a:1", "--set", "Socket.KeepAlive.Time="),
                   "Socket.KeepAlive.Time is ''"},
        WrongUsage{"Twice",
                   {"forward", "--to", "tcp://a:1", "--set", "MaxPayloadSize=1", "--set", "MaxPayloadSize=2"},
                   "'MaxPayloadSize' is given more than once"}),
    [](const testing::TestParamInfo<WrongUsage>& test) { return test.param.name; });

TEST(AgentCommandLine, NumbersAtTheirBoundsAreTaken) {
  const Installation installation;
  EXPECT_EQ(installation.Run(UpdateStatus("-2147483648", "-9223372036854775808")).status, 0);
  EXPECT_EQ(installation.Run(UpdateStatus("2147483647", "9223372036854775807")).status, 0);
}

TEST(AgentCommandLine, EveryKeyMayBeSetWhereADestinationKnowsIt) {
  LoopbackTcpServer server;
  std::vector<std::string> further{"--to", "udp://127.0.0.1:9"};
  for (const char* pair : {"Socket.QueueLowWaterMark=1000", "Socket.QueueHighWaterMark= 2000 ",
                           "Socket.KeepAlive.Enabled=Yes", "Socket.KeepAlive.Time=1000",
                           "Socket.KeepAlive.Interval=4294967295", "MaxPayloadSize=0", "AppendLineFeed=OFF"}) {
    further.insert(further.end(), {"--set", pair});
  }
  const ProcessResult result = Installation().Run(ForwardTo({TcpUrl(server.Port())}, further));
  EXPECT_EQ(result.status, 0) << result.errors;
}

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
