// Forwarding to destinations over TLS and UDP.
#include "AgentFixture.h"
#include "support/LoopbackTlsServer.h"
#include "support/LoopbackUdpServer.h"

#include <string>

namespace sorvex::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class AgentForwardKinds : public testing::TestWithParam<bool> {
 protected:
  /// Arguments after the destination, with the strategy under test.
  static std::vector<std::string> Further(std::vector<std::string> further = {}) {
    if (GetParam()) further.emplace_back("--queued");
    return further;
  }

  std::vector<std::string> WithCertificate(std::vector<std::string> further = {}) const {
    const std::string pem = ServerIdentity().CertificatePem();
    further.insert(further.end(), {"--certificate", m_installation.Directory().Write("ä.pem", pem).string()});
    return Further(std::move(further));
  }

  Installation m_installation;
};

INSTANTIATE_TEST_SUITE_P(Strategies, AgentForwardKinds, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& test) { return test.param ? "Queued" : "Blocking"; });

TEST_P(AgentForwardKinds, TlsDestinationGetsEachLine) {
  LoopbackTlsServer server;
  const ProcessResult result =
      m_installation.Run(ForwardTo({TlsUrl(server.Port())}, WithCertificate()), "one\n\ntwo\n");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(server.WaitForBytes(9), "one\n\ntwo\n");
  EXPECT_EQ(Value(result.output, "messages-sent"), "3");
}

TEST_P(AgentForwardKinds, TlsVersionsOfTheRangeAreUsed) {
  TlsServerOptions options;
  options.minVersion = options.maxVersion = TLS1_1_VERSION;
  LoopbackTlsServer server(options);
  const ProcessResult result =
      m_installation.Run(ForwardTo({TlsUrl(server.Port())}, WithCertificate({"--max-tls", "tlsv1.1"})), "one\n");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

TEST_P(AgentForwardKinds, TlsVersionOutOfTheRangeIsRefused) {
  TlsServerOptions options;
  options.maxVersion = TLS1_1_VERSION;
  LoopbackTlsServer server(options);
  const ProcessResult result = m_installation.Run(
      ForwardTo({TlsUrl(server.Port())}, WithCertificate({"--min-tls", "TLSv1.2", "--give-up-after", "0.1"})), "one\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "messages-sent"), "0");
  EXPECT_EQ(server.Handshakes(), 0);
  EXPECT_GE(server.FailedHandshakes(), 1);
}

TEST_P(AgentForwardKinds, UdpDestinationGetsEachLineAsOneDatagram) {
  LoopbackUdpServer server;
  const ProcessResult result =
      m_installation.Run(ForwardTo({UdpUrl(server.Port())}, Further()), "one\nGröße 日本\nthree");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(server.WaitForDatagrams(3), ElementsAre("one", "Größe 日本", "three"));
  EXPECT_EQ(Value(result.output, "consecutive-send-failures"), "0");
}

TEST_P(AgentForwardKinds, EventsThatAreNoDatagramsAreLeftOut) {
  LoopbackUdpServer server;
  const std::string tooLong(65508, 'x');
  const ProcessResult result = m_installation.Run(
      ForwardTo({UdpUrl(server.Port())}, Further({"--set", "MaxPayloadSize=100000"})), "one\n" + tooLong + "\n\ntwo\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(server.WaitForDatagrams(2), ElementsAre("one", "two"));
  EXPECT_EQ(Value(result.output, "events-read"), "4");
  EXPECT_EQ(Value(result.output, "messages-sent"), "2");
  const bool queued = GetParam();
  EXPECT_EQ(Value(result.output, "messages-submitted"), "4");
  EXPECT_EQ(Value(result.output, "refused"), queued ? "0" : "2");
  EXPECT_EQ(Value(result.output, "unsent"), queued ? "0" : "2");
  EXPECT_EQ(Value(result.output, "messages-dropped"), queued ? "2" : "0");
  // Once, whatever their number; a queued socket reports it in its counters.
  const std::string notice = UdpUrl(server.Port()) + ": events that are empty or too long for a datagram are not sent";
  const std::size_t first = result.errors.find(notice);
  EXPECT_EQ(first == std::string::npos, queued) << result.errors;
  EXPECT_EQ(first, result.errors.rfind(notice)) << result.errors;
}

TEST(AgentForward, CertificateInDerIsConverted) {
  LoopbackTlsServer server;
  const Installation installation;
  const std::filesystem::path file = installation.Directory().Write("a.crt", ServerIdentity().CertificateDer());
  const ProcessResult result =
      installation.Run(ForwardTo({TlsUrl(server.Port())}, {"--certificate", file.string()}), "one\n");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

struct WrongCertificate {
  const char* name;
  std::string (*content)();  ///< made by the one test that needs it: a key takes time
  const char* reason;
};

void PrintTo(const WrongCertificate& wrong, std::ostream* out) { *out << wrong.name; }

std::string InPem(const std::string& label, const std::string& body) {
  return "-----BEGIN " + label + "-----\n" + body + "-----END " + label + "-----\n";
}

std::string CutOffPem() {
  const std::string pem = ServerIdentity().CertificatePem();
  return pem.substr(0, pem.size() / 2);
}

/// Its first byte shows that it is not a sequence.
std::string DamagedPem() {
  std::string pem = ServerIdentity().CertificatePem();
  return pem.replace(pem.find("\nM"), 2, "\nA");
}

class AgentWrongCertificate : public testing::TestWithParam<WrongCertificate> {};

TEST_P(AgentWrongCertificate, IsRefusedWithFileAndReason) {
  const Installation installation;
  const std::filesystem::path file = installation.Directory().Write("a.pem", GetParam().content());
  const ProcessResult result =
      installation.Run(ForwardTo({TlsUrl(UnusedPort())}, {"--certificate", file.string()}), "one\n");
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("a.pem: " + std::string(GetParam().reason)));
}

INSTANTIATE_TEST_SUITE_P(
    Files, AgentWrongCertificate,
    testing::Values(
        WrongCertificate{"Empty", [] { return std::string(); }, "it holds no certificate"},
        WrongCertificate{"Text", [] { return std::string("no certificate"); }, "it holds no certificate"},
        WrongCertificate{"OtherPem", [] { return InPem("PRIVATE KEY", "AAAA\n"); }, "it holds no certificate"},
        WrongCertificate{"CutOff", &CutOffPem, "the end of the certificate is missing"},
        WrongCertificate{"NoBase64", [] { return InPem("CERTIFICATE", "%%%%\n"); }, "the Base64 of its PEM is damaged"},
        WrongCertificate{"NothingInside", [] { return InPem("CERTIFICATE", ""); }, "the certificate in it is empty"},
        WrongCertificate{"Damaged", &DamagedPem, "the certificate in it is damaged"},
        WrongCertificate{"CutOffDer", [] { return ServerIdentity().CertificateDer().substr(1); },
                         "it holds no certificate"},
        WrongCertificate{"LongerDer", [] { return ServerIdentity().CertificateDer() + "x"; },
                         "it holds no certificate"},
        WrongCertificate{"Large", [] { return std::string(2'000'000, 'x'); }, "it has more than 1048576 bytes"}),
    [](const testing::TestParamInfo<WrongCertificate>& test) { return test.param.name; });

TEST(AgentForward, CertificateMayStandBetweenOtherText) {
  const std::string pem = ServerIdentity().CertificatePem();
  LoopbackTlsServer server;
  const Installation installation;
  const std::filesystem::path file = installation.Directory().Write("a.pem", "# our own\r\n" + pem + pem);
  const ProcessResult result =
      installation.Run(ForwardTo({TlsUrl(server.Port())}, {"--certificate", file.string()}), "one\n");
  EXPECT_EQ(result.status, 0) << result.errors;
}

}  // namespace
}  // namespace sorvex::test
