// Command line, certificate, start and stop.
#include "ConfigServerFixture.h"
#include "support/WaitUntil.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;

ProcessResult RunServer(const std::vector<std::string>& arguments) {
  return RunProcess(SORVEX_CONFIGSERVER_PROGRAM, arguments);
}

TEST(ConfigServerStart, HelpGoesToStandardOutput) {
  const ProcessResult result = RunServer({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("--wire-port"));
}

struct WrongUsage {
  const char* name;
  std::vector<std::string> arguments;
  const char* message;
};

void PrintTo(const WrongUsage& usage, std::ostream* out) { *out << usage.name; }

class ConfigServerUsage : public testing::TestWithParam<WrongUsage> {};

TEST_P(ConfigServerUsage, IsRefusedWithStatusTwo) {
  const ProcessResult result = RunServer(GetParam().arguments);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr(GetParam().message));
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, ConfigServerUsage,
    testing::Values(WrongUsage{"NoData", {}, "--data"},
                    WrongUsage{"Port", {"--data", "d", "--wire-port", "65536"}, "--wire-port"},
                    WrongUsage{"HttpsPort", {"--data", "d", "--https-port", "65536"}, "--https-port"},
                    WrongUsage{"CertificateWithoutKey", {"--data", "d", "--certificate", "c"}, "--key"},
                    WrongUsage{"KeyWithoutCertificate", {"--data", "d", "--key", "k"}, "--certificate"},
                    WrongUsage{"WireVersion", {"--data", "d", "--wire-version", "3.0"}, "--wire-version"},
                    WrongUsage{"NoTime", {"--data", "d", "--idle-timeout", "0"}, "--idle-timeout"},
                    WrongUsage{"UnknownFault", {"--data", "d", "--fault", "sleepy"}, "'sleepy' is not KIND[:N]"},
                    WrongUsage{"FaultWithoutNumber", {"--data", "d", "--fault", "cut:"}, "'cut:' is not KIND[:N]"},
                    WrongUsage{"FaultWithHalfANumber", {"--data", "d", "--fault", "cut:1x"}, "'cut:1x' is not"},
                    WrongUsage{
                        "FaultOnNothing", {"--data", "d", "--fault", "cut", "--fault-on", "lunch"}, "--fault-on"},
                    WrongUsage{"TimesWithoutFault", {"--data", "d", "--fault-times", "1"}, "--fault"}),
    [](const testing::TestParamInfo<WrongUsage>& test) { return test.param.name; });

TEST(ConfigServerStart, MakesItsCertificateOnceAndKeepsIt) {
  ConfigServer server({}, ConfigServer::Certificate::OfItsOwn);
  EXPECT_THAT(server.Log(), HasSubstr("made the certificate"));
  const std::string certificate = server.Read("certificate.pem");
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), certificate);
  server.Start();
  EXPECT_THAT(server.Log(), Not(HasSubstr("made the certificate")));
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), certificate);
}

TEST(ConfigServerStart, ShowsTheCertificateThatItIsGiven) {
  const ConfigServer maker;
  const ConfigServer server(
      {"--certificate", (maker.Folder() / "certificate.pem").string(), "--key", (maker.Folder() / "key.pem").string()},
      ConfigServer::Certificate::OfItsOwn);
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), maker.Read("certificate.pem"));
  EXPECT_FALSE(server.Has("certificate.pem"));
}

TEST(ConfigServerStart, MakesNoOtherCertificateWhenTheKeyIsMissing) {
  ConfigServer server;
  std::filesystem::remove(server.Folder() / "key.pem");
  const ProcessResult result = RunServer({"--data", server.Folder().string(), "--wire-port", "0"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("key.pem cannot be read"));
}

TEST(ConfigServerStart, RefusesAKeyThatIsNotTheCertificates) {
  const ConfigServer one;
  const ConfigServer other({}, ConfigServer::Certificate::OfItsOwn);
  const ProcessResult result =
      RunServer({"--data", one.Folder().string(), "--wire-port", "0", "--certificate",
                 (one.Folder() / "certificate.pem").string(), "--key", (other.Folder() / "key.pem").string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the certificate and its key cannot be used"));
}

TEST(ConfigServerStart, PortThatIsTakenIsAnError) {
  const ConfigServer server;
  const ProcessResult result = RunServer(
      {"--data", server.Folder().string(), "--listen", "127.0.0.1", "--wire-port", std::to_string(server.Port())});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("sorvex-configserver: "));
}

/// What a server with only these ports writes when it has started.
std::string LogOfPorts(const std::vector<std::string>& ports) {
  const ConfigServer maker;
  std::vector<std::string> arguments{"--data", maker.Folder().string(), "--listen", "127.0.0.1"};
  arguments.insert(arguments.end(), ports.begin(), ports.end());
  const ChildProcess server(SORVEX_CONFIGSERVER_PROGRAM, arguments);
  EXPECT_TRUE(WaitUntil([&] { return server.Output().find("every agent is accepted") != std::string::npos; }));
  return server.Output();
}

TEST(ConfigServerStart, ListensOnOnePortAlone) {
  const std::string wire = LogOfPorts({"--wire-port", "0"});
  EXPECT_THAT(wire, HasSubstr(" listening on 127.0.0.1 port "));
  EXPECT_THAT(wire, Not(HasSubstr("HTTPS")));
  const std::string https = LogOfPorts({"--https-port", "0"});
  EXPECT_THAT(https, HasSubstr(" listening for HTTPS on 127.0.0.1 port "));
  EXPECT_THAT(https, Not(HasSubstr(" listening on ")));
}

TEST(ConfigServerStart, WarnsWhenEveryTokenIsAccepted) {
  ConfigServer server;
  server.WaitForLog("every agent is accepted");
  server.Write("tokens.txt", "4b1d-99e0\n");
  server.Start();
  AdmittedClient client(server);
  EXPECT_THAT(server.Log(), Not(HasSubstr("every agent is accepted")));
}

TEST(ConfigServerStart, TerminationEndsItWithConnectionsOpen) {
  ConfigServer server;
  AdmittedClient client(server);
  const TlsClient half(server.Port(), TlsClient::Start::Connect);
  server.Process().RequestEnd();
  EXPECT_EQ(server.Process().Wait(std::chrono::seconds(20)), 0);
  EXPECT_THAT(server.Log(), HasSubstr("stopped"));
}

}  // namespace
}  // namespace sorvex::test
