// The TLS sockets against the TLS library's own server program, limited to one version at a time.
#include "sockets/SSLTCPRawSocket.h"
#include "sockets/SSLTCPSocket.h"
#include "support/ChildProcess.h"
#include "support/LoopbackTcpServer.h"
#include "support/RecordingLogger.h"
#include "support/TemporaryDirectory.h"
#include "support/TlsIdentity.h"

#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace sorvex::test {
namespace {

using testing::Contains;
using testing::StartsWith;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPRawSocket;
using VaroCommunicationAPI::SSLTCPSocket;

struct Version {
  const char* option;
  const char* text;  ///< as the log names it; null if no range contains it
};

void PrintTo(const Version& version, std::ostream* out) { *out << version.option; }

/// `openssl s_server` on a free port; its output is what clients send.
class OpensslServer {
 public:
  explicit OpensslServer(const Version& version) {
    const std::string certificate = m_directory.Write("certificate.pem", ServerIdentity().CertificatePem()).string();
    const std::string key = m_directory.Write("key.pem", ServerIdentity().KeyPem()).string();
    m_pProcess = std::make_unique<ChildProcess>(
        "/usr/bin/openssl", std::vector<std::string>{"s_server", "-accept", "127.0.0.1:0", "-cert", certificate, "-key",
                                                     key, "-cipher", "DEFAULT@SECLEVEL=0", version.option});
    if (!WaitUntil([this] { return Port() != 0; })) throw std::runtime_error(m_pProcess->Errors());
  }

  std::uint16_t Port() const {
    const std::string start = "ACCEPT 127.0.0.1:";
    const std::string output = m_pProcess->Output();
    const std::size_t found = output.find(start);
    if (found == std::string::npos || output.find('\n', found) == std::string::npos) return 0;
    return static_cast<std::uint16_t>(std::stoi(output.substr(found + start.size())));
  }
  bool HasReceived(const std::string& text) const { return m_pProcess->Output().find(text) != std::string::npos; }
  std::string CertificateFile() const { return (m_directory.Path() / "certificate.pem").string(); }
  /// Sends this to the client.
  void Say(const std::string& text) { m_pProcess->WriteInput(text); }

 private:
  TemporaryDirectory m_directory{"s_server"};
  std::unique_ptr<ChildProcess> m_pProcess;
};

class OpensslServerOfVersion : public testing::TestWithParam<Version> {
 protected:
  bool IsInRange() const { return GetParam().text != nullptr; }
  auto ConnectedLine() const {
    return StartsWith(std::string("Debug Connected to server using ") + GetParam().text + " (cipher: ");
  }

  RecordingLogger m_log;
  OpensslServer m_server{GetParam()};
};

TEST_P(OpensslServerOfVersion, ExchangesWithTheRawSocket) {
  SSLTCPRawSocket socket{SSLProtocolList()};
  socket.SetCertificateFile(WindowsAgentCommon::Utf8ToWide(m_server.CertificateFile()));
  socket.Open(L"127.0.0.1", m_server.Port());
  ASSERT_EQ(socket.IsConnected(), IsInRange());
  if (!IsInRange()) {
    EXPECT_THAT(m_log->Lines(), Contains(StartsWith("Error Cannot connect to server (")));
    return;
  }
  EXPECT_THAT(m_log->Lines(), Contains(ConnectedLine()));
  EXPECT_EQ(socket.Send("from the agent\n", 15), 15);
  EXPECT_TRUE(WaitUntil([&] { return m_server.HasReceived("from the agent\n"); }));
  m_server.Say("an answer\n");
  std::string answer(10, '\0');
  EXPECT_EQ(socket.Receive(answer.data(), 10, 20000), 10);
  EXPECT_EQ(answer, "an answer\n");
}

TEST_P(OpensslServerOfVersion, ReceivesFromTheDestinationSocket) {
  for (const char* const isBlocking : {"true", "false"}) {
    m_log->Clear();
    SSLTCPSocket socket{SSLProtocolList()};
    socket.Initialize({{"TargetPort", std::to_string(m_server.Port())},
                       {"Socket.BlockingSendStrategy", isBlocking},
                       {"Certificate", ToBase64(ServerIdentity().CertificatePem())}});
    EXPECT_EQ(socket.IsConnected(), IsInRange());
    if (IsInRange()) {
      EXPECT_THAT(m_log->Lines(), Contains(ConnectedLine()));
      std::string expected;
      for (int number = 0; number < 500; ++number) {
        const std::string payload = std::string("blocking ") + isBlocking + ' ' + std::to_string(number);
        EXPECT_GT(socket.Send(payload.data(), static_cast<std::uint32_t>(payload.size())), 0);
        expected += payload + '\n';
      }
      EXPECT_TRUE(WaitUntil([&] { return m_server.HasReceived(expected); }));
    } else {
      EXPECT_THAT(m_log->Lines(), Contains(StartsWith("Error Cannot connect to server (")));
    }
    EXPECT_EQ(socket.Shutdown(), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Versions, OpensslServerOfVersion,
                         testing::Values(Version{"-tls1", "TLSv1"}, Version{"-tls1_1", "TLSv1.1"},
                                         Version{"-tls1_2", "TLSv1.2"}, Version{"-tls1_3", nullptr}),
                         [](const testing::TestParamInfo<Version>& test) {
                           return std::string(test.param.option).substr(1);
                         });

}  // namespace
}  // namespace sorvex::test
