// The module's direct TLS connection against scripted TLS servers.
#include "factory/ConnectionFactory.h"

#include "support/HexBytes.h"
#include "support/LoopbackTlsServer.h"
#include "support/RecordingLogger.h"
#include "support/WireRequest.h"
#include "unit/module/ApplicationKey.h"
#include "unit/module/CertificateInStore.h"
#include "unit/module/FakeComponentFactory.h"
#include "unit/module/InstallationDirectory.h"

#include <host/ServiceLookup.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using WindowsAgentCommon::IConfigurationServerConnection;
using WindowsAgentCommon::IConnectionFactory;

const std::string established2 = HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'");
const std::string established1 = HexBytes("00000001 0000000B 00000003 '1.0' 00000000");
const std::string registered2 = HexBytes("00000002 0000000B 00000003 '2.0' 00000001");
const std::string registered1 = HexBytes("00000002 0000000B 00000003 '1.0' 00000001");
const std::string updated2 = HexBytes("00000003 0000000B 00000003 '2.0' 00000000");

/// The script of one connection: what is sent after each request; then it reads until the client ends.
using Answers = std::vector<std::string>;

/// A configuration server with a script for each connection; the last one serves all later ones. It logs "name" of each
/// connection: the name in the client's handshake.
class WireServer {
 public:
  using Script = std::function<void(TlsServerSession& session, int index)>;

  explicit WireServer(Script script, const TlsServerOptions& options = {})
      : m_script(std::move(script)),
        m_server(
            [this](LoopbackTlsServer&, TlsServerSession& session, int index) {
              const char* const name = SSL_get_servername(session.Native(), TLSEXT_NAMETYPE_host_name);
              {
                const std::lock_guard lock(m_mutex);
                m_names.emplace_back(name ? name : "(none)");
              }
              m_script(session, index);
              session.ReadAll();
              ++m_ended;
            },
            options) {}

  /// Connections get the answers of their index, in order.
  explicit WireServer(std::vector<Answers> answers)
      : WireServer([answers = std::move(answers)](TlsServerSession& session, int index) {
          const std::size_t last = answers.size() - 1;
          for (const std::string& answer : answers[std::min(static_cast<std::size_t>(index), last)]) {
            ReadRequest(session);
            session.Write(answer);
          }
        }) {}

  std::uint16_t Port() const { return m_server.Port(); }
  int Connections() const { return m_server.Connections(); }

  /// Waits until the clients have ended all connections.
  bool AllEnded() {
    return WaitUntil([this] { return m_ended == m_server.Connections(); });
  }

  std::vector<std::string> Names() {
    const std::lock_guard lock(m_mutex);
    return m_names;
  }

 private:
  Script m_script;
  std::mutex m_mutex;
  std::vector<std::string> m_names;
  std::atomic<int> m_ended{0};
  LoopbackTlsServer m_server;
};

class DirectTlsConnection : public testing::Test {
 protected:
  DirectTlsConnection() { StoreInContainer(ApplicationKey::Of(1024), ""); }
  ~DirectTlsConnection() override {
    if (m_factory) m_factory->ReleaseConfigServerConnection(m_connection);
  }

  void Trust(const TlsIdentity& identity) {
    m_installation.Write("config/ConfigurationServer.PEM", identity.CertificatePem());
  }

  /// Makes the module's connection to the server at this port.
  void Use(std::uint16_t port, const std::string& host = "127.0.0.1") {
    m_installation.WriteInstallFile("ConfigurationServer=" + host +
                                    "\r\nConfigurationServerPort=" + std::to_string(port) +
                                    "\r\nApplicationIdentifier=agent\r\nApplicationToken=to-ken\r\n"
                                    "ConfigurationServerReadTimeout=1\r\n");
    m_host.Offer("IConnectionFactory", [] { return new VaroCommunicationAPI::ConnectionFactory; });
    m_host.LoadService("IConnectionFactory");
    m_factory = WindowsAgentCommon::GetService<IConnectionFactory>();
    ASSERT_EQ(m_factory->Initialize({}), 1);
    m_factory->CreateConfigServerConnection(m_connection);
    ASSERT_TRUE(m_connection);
    m_log->Clear();
  }

  bool Register() { return m_connection->RegisterInstance("os", "7.2.5"); }

  void ExpectCodes(std::uint32_t code) {
    EXPECT_EQ(static_cast<std::uint32_t>(m_connection->GetLastErrorCode()), code);
    EXPECT_EQ(static_cast<std::uint32_t>(m_connection->GetLastResultCode()), code);
  }

  std::vector<std::string> Problems() const {
    std::vector<std::string> problems;
    for (const std::string& line : m_log->Lines()) {
      if (line.starts_with("Warn") || line.starts_with("Error")) problems.push_back(line);
    }
    return problems;
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  FakeComponentFactory m_host;
  IConnectionFactory* m_factory = nullptr;
  std::shared_ptr<IConfigurationServerConnection> m_connection;
};

TEST_F(DirectTlsConnection, TrustsOnFirstUse) {
  WireServer server([](TlsServerSession& session, int index) {
    if (index == 0) return;  // the certificate is fetched
    for (const std::string& answer : {established2, registered2}) {
      ReadRequest(session);
      session.Write(answer);
    }
  });
  Use(server.Port());
  EXPECT_TRUE(Register());
  EXPECT_EQ(m_connection->GetLastResultCode(), 1);
  EXPECT_EQ(TemporaryDirectory::Read(m_installation.ConfigDirectory() / "ConfigurationServer.PEM"),
            ServerIdentity().CertificatePem());
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_TRUE(server.AllEnded());
  EXPECT_THAT(Problems(), IsEmpty());
  EXPECT_THAT(m_log->Lines(), Each(Not(HasSubstr("to-ken"))));
}

TEST_F(DirectTlsConnection, TrustsOnFirstUseThroughTheSystemsStores) {
  const TlsIdentity root("Sorvex fetched root");
  const TlsIdentity intermediate("Sorvex fetched intermediate", &root, 3600, true);
  const TlsIdentity leaf("leaf", &intermediate);
  const auto stored = [](const TlsIdentity& identity) {
    VaroCommunicationAPI::Platform::Certificate certificate;
    EXPECT_EQ(VaroCommunicationAPI::Platform::Certificate::FromPem(identity.CertificatePem(), certificate), 0);
    return certificate;
  };
  const CertificateInStore storedRoot(L"ROOT", stored(root));
  const CertificateInStore storedIntermediate(L"CA", stored(intermediate));
  // It presents only its own certificate; the file must complete the chain.
  WireServer server(
      [](TlsServerSession& session, int index) {
        if (index == 0) return;
        ReadRequest(session);
        session.Write(established2);
      },
      TlsServerOptions{.identity = &leaf});
  Use(server.Port());
  EXPECT_TRUE(m_connection->TestConnection());
  EXPECT_EQ(TemporaryDirectory::Read(m_installation.ConfigDirectory() / "ConfigurationServer.PEM"),
            root.CertificatePem() + intermediate.CertificatePem() + leaf.CertificatePem());
  EXPECT_THAT(Problems(), IsEmpty());
}

TEST_F(DirectTlsConnection, RefusesOnFirstUseAServerWhoseIssuerIsUnknown) {
  const TlsIdentity authority("Sorvex unheard-of authority");
  const TlsIdentity leaf("leaf", &authority);
  WireServer server([](TlsServerSession&, int) {}, TlsServerOptions{.identity = &leaf});
  Use(server.Port());
  EXPECT_FALSE(m_connection->TestConnection());
  ExpectCodes(0x80000003);
  EXPECT_EQ(server.Connections(), 1);
  EXPECT_FALSE(std::filesystem::exists(m_installation.ConfigDirectory() / "ConfigurationServer.PEM"));
  EXPECT_TRUE(server.AllEnded());
}

TEST_F(DirectTlsConnection, FetchesTheCertificateByTheNameThatItMeetsLater) {
  WireServer server([](TlsServerSession& session, int index) {
    if (index == 0) return;
    ReadRequest(session);
    session.Write(established2);
  });
  Use(server.Port(), "localhost");
  EXPECT_TRUE(m_connection->TestConnection());
  EXPECT_THAT(server.Names(), ElementsAre("localhost", "localhost"));
}

TEST_F(DirectTlsConnection, TakesAnIPv6AddressInBrackets) {
  std::optional<WireServer> server;
  try {
    server.emplace(
        [](TlsServerSession& session, int index) {
          if (index == 0) return;
          ReadRequest(session);
          session.Write(established2);
        },
        TlsServerOptions{.isIPv6 = true});
  } catch (const std::exception&) {
    GTEST_SKIP() << "no IPv6 on this machine";
  }
  Use(server->Port(), "[::1]");
  EXPECT_TRUE(m_connection->TestConnection());
  EXPECT_THAT(server->Names(), ElementsAre("(none)", "(none)"));
}

TEST_F(DirectTlsConnection, RefusesAServerWithAnotherCertificate) {
  Trust(TlsIdentity("stranger"));
  WireServer server({{established2}});
  Use(server.Port());
  EXPECT_FALSE(m_connection->TestConnection());
  ExpectCodes(0x80000007);
  EXPECT_THAT(Problems(), ElementsAre(StartsWith("Error Cannot connect to server (")));
  EXPECT_THAT(m_log->Lines(), Contains(HasSubstr("certificate verify failed")));
}

TEST_F(DirectTlsConnection, ReadsAnswersThatComeByteByByte) {
  Trust(ServerIdentity());
  const std::string configuration = HexBytes(
      "00000004 00000061 00000003 '2.0' 00000000 00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
      "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'");
  WireServer server([&](TlsServerSession& session, int) {
    for (const std::string& answer : {established2, configuration}) {
      ReadRequest(session);
      for (const char byte : answer) session.Write({&byte, 1});
    }
  });
  Use(server.Port());
  ASSERT_TRUE(m_connection->Connect());
  bool bBlocked = true;
  EXPECT_EQ(m_connection->GetConfigurationFingerprint(bBlocked), "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF");
  std::ostringstream output;
  std::string md5;
  EXPECT_TRUE(m_connection->RetrieveConfiguration(output, md5));
  EXPECT_EQ(output.str(), "abc");
  EXPECT_EQ(md5, "900150983cd24fb0d6963f7d28e17f72");
  m_connection->Disconnect();
  EXPECT_TRUE(server.AllEnded());
}

TEST_F(DirectTlsConnection, FetchesALargePatch) {
  Trust(ServerIdentity());
  // 5,000,000 bytes.
  const std::string patch(5'000'000, 'p');
  WireServer server({{established2, HexBytes("00000005 004C4B73 00000003 '2.0' 00000000 004C4B40 00000020 "
                                             "'900150983cd24fb0d6963f7d28e17f72'") +
                                        patch}});
  Use(server.Port());
  ASSERT_TRUE(m_connection->Connect());
  std::ostringstream output;
  std::string md5;
  EXPECT_TRUE(m_connection->RetrieveSoftwarePatch({"Agent"}, output, md5));
  EXPECT_EQ(output.str(), patch);
  EXPECT_EQ(md5, "900150983cd24fb0d6963f7d28e17f72");
}

// Servers of version 1.0

TEST_F(DirectTlsConnection, MeetsAServerOfVersion1ThatSendsItsWholeAnswer) {
  Trust(ServerIdentity());
  WireServer server({{established1, ""}, {established1, registered1}, {established1}});
  Use(server.Port());
  EXPECT_TRUE(Register());
  EXPECT_EQ(m_connection->GetLastResultCode(), 1);
  EXPECT_EQ(m_connection->GetLastErrorCode(), 0);
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_THAT(Problems(), IsEmpty());
  // From there on it starts with 1.0.
  EXPECT_TRUE(m_connection->TestConnection());
  EXPECT_EQ(server.Connections(), 3);
  EXPECT_TRUE(server.AllEnded());
}

TEST_F(DirectTlsConnection, MeetsAServerOfVersion1ThatCloses) {
  Trust(ServerIdentity());
  WireServer server([](TlsServerSession& session, int index) {
    ReadRequest(session);
    session.Write(index == 0 ? established1.substr(0, 4) : established1);
    if (index == 0) {
      session.Close();
      return;
    }
    ReadRequest(session);
    session.Write(registered1);
  });
  Use(server.Port());
  EXPECT_TRUE(Register());
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_EQ(m_log->Count("Debug Configuration server is using wire protocol v1.0."), 1U);
}

TEST_F(DirectTlsConnection, GoesOnWithAServerOfVersion1ThatSendsTheTypeOnly) {
  Trust(ServerIdentity());
  WireServer server({{established1.substr(0, 4), established1, registered1}});
  Use(server.Port());
  EXPECT_TRUE(Register());
  EXPECT_EQ(server.Connections(), 1);
  EXPECT_THAT(Problems(), IsEmpty());
}

// Faults

TEST_F(DirectTlsConnection, LeavesASilentServerAfterTheReadTimeout) {
  Trust(ServerIdentity());
  WireServer server([](TlsServerSession& session, int index) {
    ReadRequest(session);
    if (index == 0) return;
    session.Write(established2);
    ReadRequest(session);
    session.Write(updated2);
  });
  Use(server.Port());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(Register());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(990));
  ExpectCodes(0x80000004);
  EXPECT_TRUE(server.AllEnded());
  EXPECT_TRUE(m_connection->UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
}

TEST_F(DirectTlsConnection, SurvivesAnswersThatAreCut) {
  Trust(ServerIdentity());
  // At and inside the fields of both answers.
  const std::vector<std::size_t> cuts{0, 3, 8, 25, 26, 44};
  // Every second connection is whole.
  WireServer server([&](TlsServerSession& session, int index) {
    std::size_t room = index % 2 == 0 ? cuts[static_cast<std::size_t>(index) / 2] : 1000;
    for (const std::string& answer : {established2, registered2}) {
      ReadRequest(session);
      session.Write(std::string_view(answer).substr(0, room));
      if (room < answer.size()) {
        session.Close();
        return;
      }
      room -= answer.size();
    }
  });
  Use(server.Port());
  for (const std::size_t cut : cuts) {
    std::shared_ptr<IConfigurationServerConnection> connection;
    m_factory->CreateConfigServerConnection(connection);
    EXPECT_FALSE(connection->RegisterInstance("os", "7.2.5")) << cut;
    EXPECT_EQ(static_cast<std::uint32_t>(connection->GetLastErrorCode()), 0x80000004U) << cut;
    EXPECT_TRUE(connection->RegisterInstance("os", "7.2.5")) << cut;
    m_factory->ReleaseConfigServerConnection(connection);
  }
  EXPECT_TRUE(server.AllEnded());
}

class FaultyAnswer : public DirectTlsConnection, public testing::WithParamInterface<std::string> {};

TEST_P(FaultyAnswer, IsNoResponseAndTheNextConnectionWorks) {
  Trust(ServerIdentity());
  WireServer server({{established2, GetParam()}, {established2, updated2}});
  Use(server.Port());
  ASSERT_TRUE(m_connection->Connect());
  bool bBlocked = true;
  EXPECT_EQ(m_connection->GetConfigurationFingerprint(bBlocked), "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF");
  EXPECT_FALSE(bBlocked);
  ExpectCodes(0x80000004);
  EXPECT_TRUE(server.AllEnded());
  EXPECT_TRUE(m_connection->UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
}

INSTANTIATE_TEST_SUITE_P(Bytes, FaultyAnswer,
                         testing::Values(
                             // A text, a key, a digest, a configuration over its bound; an answer that never ends.
                             HexBytes("00000004 00000061 00100001"),
                             HexBytes("00000004 00000061 00000003 '2.0' 00000000 06400001 00000000"),
                             HexBytes("00000004 00000061 00000003 '2.0' 00000000 00000003 00000021"),
                             HexBytes("00000004 00000061 00000003 '2.0' 00000000 00000000 00000000 06400001 00000000"),
                             HexBytes("00000004 00000061 00000003 '2.0'")),
                         [](const auto& test) { return std::to_string(test.index); });

}  // namespace
}  // namespace sorvex::test
