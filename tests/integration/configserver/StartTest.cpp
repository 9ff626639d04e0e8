// Command line, certificate, start and stop.
#include "ConfigServerFixture.h"
#include "support/WaitUntil.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

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
                    WrongUsage{"NoTimeForARequest", {"--data", "d", "--request-timeout", "0"}, "--request-timeout"},
                    WrongUsage{"UnknownFault", {"--data", "d", "--fault", "sleepy"}, "'sleepy' is not KIND[:N]"},
                    WrongUsage{"FaultWithoutNumber", {"--data", "d", "--fault", "cut:"}, "'cut:' is not KIND[:N]"},
                    WrongUsage{"FaultWithHalfANumber", {"--data", "d", "--fault", "cut:1x"}, "'cut:1x' is not"},
                    WrongUsage{
                        "FaultOnNothing", {"--data", "d", "--fault", "cut", "--fault-on", "lunch"}, "--fault-on"},
                    WrongUsage{"OnWithoutFault", {"--data", "d", "--fault-on", "status"}, "--fault"},
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

TEST(ConfigServerStart, ItsCertificateIsValidHereForTenYears) {
  const ConfigServer server({}, ConfigServer::Certificate::OfItsOwn);
  const std::string pem = server.Read("certificate.pem");
  const std::unique_ptr<BIO, int (*)(BIO*)> input(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr),
                                                           &X509_free);
  ASSERT_NE(certificate, nullptr);
  EXPECT_EQ(X509_check_host(certificate.get(), "localhost", 0, 0, nullptr), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "127.0.0.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate.get(), "::1", 0), 1);
  EXPECT_EQ(X509_check_ca(certificate.get()), 1);
  EXPECT_EQ(X509_verify(certificate.get(), X509_get0_pubkey(certificate.get())), 1);
  // Also for an agent whose clock is a few hours slow.
  time_t time = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now() - std::chrono::hours(23));
  EXPECT_EQ(X509_cmp_time(X509_get0_notBefore(certificate.get()), &time), -1);
  time += 3649L * 24 * 60 * 60;
  EXPECT_EQ(X509_cmp_time(X509_get0_notAfter(certificate.get()), &time), 1);
  time += 2L * 24 * 60 * 60;
  EXPECT_EQ(X509_cmp_time(X509_get0_notAfter(certificate.get()), &time), -1);
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

TEST(ConfigServerStart, MakesNoOtherKeyWhenTheCertificateIsMissing) {
  ConfigServer server;
  std::filesystem::remove(server.Folder() / "certificate.pem");
  const std::string key = server.Read("key.pem");
  const ProcessResult result = RunServer({"--data", server.Folder().string(), "--wire-port", "0"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("certificate.pem cannot be read"));
  EXPECT_EQ(server.Read("key.pem"), key);
  EXPECT_FALSE(server.Has("certificate.pem"));
}

/// What a first start leaves that is killed when the certificate is there and the key has not got its name.
void LeaveKeyUnfinished(const ConfigServer& server) {
  std::filesystem::rename(server.Folder() / "key.pem", server.Folder() / "key.pem.unfinished");
}

TEST(ConfigServerStart, FinishesTheKeyOfAnInterruptedFirstStart) {
  ConfigServer server;
  LeaveKeyUnfinished(server);
  server.Start();
  EXPECT_THAT(server.Log(), HasSubstr("key.pem of an interrupted first start"));
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), ServerIdentity().CertificatePem());
  EXPECT_EQ(server.Read("key.pem"), ServerIdentity().KeyPem());
  EXPECT_EQ(server.Read("certificate.pem"), ServerIdentity().CertificatePem());
  EXPECT_FALSE(server.Has("key.pem.unfinished"));
}

TEST(ConfigServerStart, StartsAnewWithAnUnfinishedKeyAlone) {
  ConfigServer server;
  LeaveKeyUnfinished(server);
  std::filesystem::remove(server.Folder() / "certificate.pem");
  server.Start();
  EXPECT_THAT(server.Log(), HasSubstr("made the certificate"));
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), server.Read("certificate.pem"));
  EXPECT_FALSE(server.Has("key.pem.unfinished"));
}

TEST(ConfigServerStart, RemovesTheOtherNameOfItsFinishedKeyAlone) {
  ConfigServer server;
  server.Write("key.pem.unfinished", ServerIdentity().KeyPem());
  server.Start();
  EXPECT_FALSE(server.Has("key.pem.unfinished"));
  EXPECT_EQ(server.Read("key.pem"), ServerIdentity().KeyPem());

  server.Write("key.pem.unfinished", "another key");
  server.Start();
  EXPECT_EQ(server.Read("key.pem.unfinished"), "another key");
  EXPECT_EQ(server.Read("key.pem"), ServerIdentity().KeyPem());
}

TEST(ConfigServerStart, TakesNoUnfinishedKeyThatIsNotTheCertificates) {
  const ConfigServer server;
  std::filesystem::remove(server.Folder() / "key.pem");
  const TlsIdentity other("other");
  for (const std::string& key : {other.KeyPem(), std::string("no key")}) {
    server.Write("key.pem.unfinished", key);
    const ProcessResult result = RunServer({"--data", server.Folder().string(), "--wire-port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr("key.pem cannot be read"));
    EXPECT_FALSE(server.Has("key.pem"));
    EXPECT_EQ(server.Read("key.pem.unfinished"), key);
  }
}

TEST(ConfigServerStart, MakesNoCertificateBeforeItsKeyIsWritten) {
  const TemporaryDirectory directory;
  // No file can take its name.
  directory.Write("key.pem.unfinished/file", "");
  const ProcessResult result = RunServer({"--data", directory.Path().string(), "--wire-port", "0"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("key.pem.unfinished: "));
  EXPECT_FALSE(std::filesystem::exists(directory.Path() / "certificate.pem"));
  EXPECT_FALSE(std::filesystem::exists(directory.Path() / "key.pem"));
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
  EXPECT_THAT(result.errors, HasSubstr("sorvex-configserver: cannot listen on 127.0.0.1 port " +
                                       std::to_string(server.Port()) + ": "));
}

TEST(ConfigServerStart, AddressThatIsNotItsOwnIsAnError) {
  const ConfigServer maker;
  const std::vector<std::string> start{"--data", maker.Folder().string(), "--listen"};
  // An address for documents, and the port that agents use when they are told none.
  for (const char* const address : {"192.0.2.1", "nonsense"}) {
    std::vector<std::string> arguments = start;
    arguments.emplace_back(address);
    const ProcessResult result = RunServer(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors,
                HasSubstr("sorvex-configserver: cannot listen on " + std::string(address) + " port 8413: "));
  }
}

TEST(ConfigServerStart, TakesItsPortAgainWhileOldConnectionsLinger) {
  ConfigServer server;
  const AdmittedClient client(server);
  const std::string port = std::to_string(server.Port());
  // Ends the old process, but not the client.
  server.Start();
  const ChildProcess again(SORVEX_CONFIGSERVER_PROGRAM,
                           {"--data", server.Folder().string(), "--listen", "127.0.0.1", "--wire-port", port});
  EXPECT_TRUE(WaitUntil([&] {
    return again.Output().find("listening on 127.0.0.1 port " + port) != std::string::npos;
  })) << again.Errors();
}

TEST(ConfigServerStart, ListensForBothVersionsOfTheInternetProtocol) {
  const ConfigServer maker;
  const ChildProcess server(SORVEX_CONFIGSERVER_PROGRAM,
                            {"--data", maker.Folder().string(), "--listen", "::", "--wire-port", "0"});
  const std::string start = " listening on :: port ";
  ASSERT_TRUE(WaitUntil([&] {
    return server.Output().find("every agent is accepted") != std::string::npos || !server.Errors().empty();
  }));
  if (server.Errors().find("cannot listen on ::") != std::string::npos) GTEST_SKIP() << server.Errors();
  const std::string log = server.Output();
  ASSERT_NE(log.find(start), std::string::npos) << log;
  const int port = std::stoi(log.substr(log.find(start) + start.size()));
  TlsClient client(static_cast<std::uint16_t>(port));
  client.Send(Establishment2());
  EXPECT_EQ(client.Receive(26), Establishment2Response());
}

TEST(ConfigServerStart, KeepsWhatAgentsReportedAcrossARestart) {
  ConfigServer server;
  AdmittedClient first(server);
  EXPECT_TRUE(first.Ask(RegisterRequest("2.0"), ResultResponse(2, "2.0", 1)));
  server.Start();
  AdmittedClient second(server);
  EXPECT_TRUE(second.Ask(RegisterRequest("2.0"), ResultResponse(2, "2.0", 2)));
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
