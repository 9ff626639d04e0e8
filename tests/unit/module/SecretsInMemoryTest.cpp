// No memory that the module frees holds four consecutive bytes of the application token.
#include "ApplicationKey.h"
#include "FakeComponentFactory.h"
#include "FreedMemory.h"
#include "InstallationDirectory.h"
#include "ScriptedConnectionFactory.h"
#include "wire/TestBlock.h"

#include "connection/ConfigServerConnection.h"
#include "connection/CurlTrace.h"
#include "connection/SSLConfigServerConnection.h"
#include "factory/ConnectionFactory.h"
#include "install/ApplicationToken.h"
#include "install/InstallConfigFileProcessor.h"
#include "support/ConnectProxy.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "support/RecordingLogger.h"
#include "support/RefusingPort.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace {

using sorvex::test::ApplicationKey;
using sorvex::test::FreedMemory;
using sorvex::test::InstallationDirectory;
using VaroCommunicationAPI::InstallConfigFileProcessor;
using WindowsAgentCommon::ParameterBlock;

/// With runs of characters that occur nowhere else. The short one fits into a string object itself.
constexpr const char* longToken = "Zq7~vK2-wX9_Jm4-pR8^hT3-bN6!gY5";
constexpr const char* shortToken = "Zq7~vK2-wX9";

struct TokenForm {
  const char* name;
  const char* plain;
  bool bSecured;
};

void PrintTo(const TokenForm& form, std::ostream* out) { *out << form.name; }

class TokenInMemory : public testing::TestWithParam<TokenForm> {
 protected:
  /// Writes an install file with the token in its form, and `lines` after it.
  void Install(const std::string& lines = {}) {
    const ApplicationKey& key = ApplicationKey::Of(1024);
    StoreInContainer(key);
    m_installation.WriteInstallFile(
        "A=1\r\nApplicationToken=" + (GetParam().bSecured ? key.Secure(Token()) : std::string(Token())) + "\r\n" +
        lines + "B=2\r\n");
  }
  static std::string_view Token() { return GetParam().plain; }

  sorvex::test::RecordingLogger m_log;
  InstallationDirectory m_installation;
};

TEST_P(TokenInMemory, IsGoneAfterTheInstallFile) {
  Install("ApplicationToken=" + std::string(Token()) + "\n");
  const FreedMemory freed(Token());
  {
    ParameterBlock parameters;
    InstallConfigFileProcessor().Process(InstallationDirectory::InstallFile(), parameters);
    EXPECT_EQ(parameters.find("ApplicationToken")->second, Token());
    EXPECT_EQ(freed.BlocksWithSecret(), 0);
    VaroCommunicationAPI::WipeApplicationToken(parameters);
  }
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST_P(TokenInMemory, IsGoneAfterALookUp) {
  ParameterBlock parameters{{"ApplicationToken", std::string(Token())}};
  const FreedMemory freed(Token());
  EXPECT_EQ(VaroCommunicationAPI::ReadApplicationToken(parameters).View(), Token());
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST_P(TokenInMemory, IsSeenWhereNobodyWipes) {
  auto parameters = std::make_unique<ParameterBlock>();
  parameters->emplace("ApplicationToken", Token());
  const FreedMemory freed(Token());
  parameters.reset();
  EXPECT_EQ(freed.BlocksWithSecret(), 1);
}

/// The component from start to end, with the connection of the mode that `lines` select.
class TokenOfComponent : public TokenInMemory {
 protected:
  void RunWith(const std::string& lines) {
    Install(lines);
    const sorvex::test::FakeComponentFactory host;
    const FreedMemory freed(Token());
    {
      VaroCommunicationAPI::ConnectionFactory factory;
      ASSERT_EQ(factory.Initialize({}), 1);
      std::shared_ptr<WindowsAgentCommon::IConfigurationServerConnection> connection;
      factory.CreateConfigServerConnection(connection);
      ASSERT_TRUE(connection);
      // Nobody listens at the port of `Server`.
      connection->Connect();
      connection->TestConnection();
      connection->RegisterInstance("os", "1");
      factory.ReleaseConfigServerConnection(connection);
      factory.Shutdown();
      // Starts afresh.
      ASSERT_EQ(factory.Initialize({}), 1);
      EXPECT_EQ(freed.BlocksWithSecret(), 0);
    }
    EXPECT_GT(freed.Blocks(), 0);
    EXPECT_EQ(freed.BlocksWithSecret(), 0);
  }

  std::string Server() const {
    return "ConfigurationServer=127.0.0.1\nConfigurationServerPort=" + std::to_string(m_port.Port()) +
           "\nApplicationIdentifier=agent\n";
  }

 private:
  sorvex::test::RefusingPort m_port;
};

TEST_P(TokenOfComponent, IsGoneAfterStandAloneMode) { RunWith({}); }

TEST_P(TokenOfComponent, IsGoneAfterDirectTls) { RunWith(Server()); }

TEST_P(TokenOfComponent, IsGoneAfterHttps) { RunWith(Server() + "ForceHTTPSConfigServerConnection=true\n"); }

constexpr TokenForm forms[] = {{"Plain", longToken, false},
                               {"PlainShort", shortToken, false},
                               {"Secured", longToken, true},
                               {"SecuredShort", shortToken, true}};
const auto formName = [](const auto& form) { return std::string(form.param.name); };
INSTANTIATE_TEST_SUITE_P(Forms, TokenInMemory, testing::ValuesIn(forms), formName);
INSTANTIATE_TEST_SUITE_P(Forms, TokenOfComponent, testing::ValuesIn(forms), formName);

TEST(TokenTakenForSecured, LeavesNoDecodedBytes) {
  // Base64 without a dash: it is decoded, and then there is no key to decrypt it with.
  constexpr std::string_view decoded = "Zq7~vK2_wX9_Jm4_pR8^hT";
  const std::string token = sorvex::test::EncodeBase64({decoded.begin(), decoded.end()});
  const InstallationDirectory installation;
  installation.WriteInstallFile("ApplicationToken=" + token + "\n");
  ParameterBlock parameters;
  const FreedMemory freed(decoded);
  EXPECT_NE(InstallConfigFileProcessor().Process(InstallationDirectory::InstallFile(), parameters), 0);
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

/// A peer that examines what it is sent, and keeps none of it.
class ForgettingSocket : public sorvex::test::FakeRawSocket {
 public:
  std::int32_t Send(const void* buffer, std::uint32_t length) override {
    const std::string_view sent(static_cast<const char*>(buffer), length);
    if (sent.find(longToken) != std::string_view::npos) ++m_tokens;
    return static_cast<std::int32_t>(length);
  }

  int m_tokens = 0;
};

class TokenOfClient : public testing::Test {
 protected:
  std::shared_ptr<ForgettingSocket> m_socket = std::make_shared<ForgettingSocket>();
  VaroCommunicationAPI::SocketSerializer m_serializer{m_socket};
};

TEST_F(TokenOfClient, IsGoneAfterVersion1) {
  m_socket->Say(sorvex::test::HexBytes("00000001 0000000B 00000003 '1.0' 00000000"));
  const FreedMemory freed(longToken);
  {
    SSLConfigServerProto::SSLConfigServerAPIClient_v1 client("agent", longToken);
    client.ConnectionEstablishment(m_serializer, SSLConfigServerProto::CONNECTION_FLAG_NONE);
  }
  EXPECT_EQ(m_socket->m_tokens, 1);
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST_F(TokenOfClient, IsGoneAfterVersion2) {
  m_socket->Say(sorvex::test::HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
  const auto key = SSLConfigServerProto::MakeBlock("key");
  const FreedMemory freed(longToken);
  {
    SSLConfigServerProto::SSLConfigServerAPIClient_v2 client("agent", longToken, *key);
    client.ConnectionEstablishment(m_serializer, SSLConfigServerProto::CONNECTION_FLAG_NONE);
  }
  EXPECT_EQ(m_socket->m_tokens, 1);
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
}

TEST(TokenOfDirectTlsConnection, IsGoneAfterConversationsInBothVersions) {
  const InstallationDirectory installation;
  const sorvex::test::RecordingLogger log;
  installation.Write("config/ConfigurationServer.PEM", "trusted");
  StoreInContainer(ApplicationKey::Of(1024), "");
  sorvex::test::ScriptedServer server;
  sorvex::test::FakeComponentFactory host;
  host.Offer("IConnectionFactory", [&] { return new sorvex::test::ScriptedConnectionFactory(server); });
  host.LoadService("IConnectionFactory");
  server.m_bKeepsReceived = false;
  const std::string established1 = sorvex::test::HexBytes("00000001 0000000B 00000003 '1.0' 00000000");
  server.m_next = {{established1}, {established1}};
  const ParameterBlock parameters{{"ConfigurationServer", "server.example"}, {"ApplicationToken", longToken}};
  const FreedMemory freed(longToken);
  {
    VaroCommunicationAPI::SSLConfigServerConnection connection;
    connection.Initialize(parameters);
    EXPECT_TRUE(connection.Connect());
    EXPECT_EQ(server.m_attempts, 2);
  }
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
  for (const std::string& line : log->Lines()) EXPECT_EQ(line.find(longToken), std::string::npos);
}

// libcurl's own copy of the header, freed after sending, is out of reach.

TEST(TokenOfHttpsConnection, IsGoneAfterRequestsThatReachNobody) {
  const InstallationDirectory installation;
  const sorvex::test::RecordingLogger log;
  installation.Write("config/Console.PEM", "trusted");
  const sorvex::test::ScopedProxy nowhere(sorvex::test::UnusedPort());
  for (const std::string& token : {std::string(longToken), std::string(shortToken), longToken + std::string("\n")}) {
    ParameterBlock parameters{{"ConfigurationServer", "127.0.0.1"}, {"ApplicationToken", token}};
    const FreedMemory freed(token);
    {
      VaroCommunicationAPI::ConfigServerConnection connection;
      EXPECT_TRUE(connection.Initialize(parameters));
      EXPECT_FALSE(connection.RegisterInstance("os", "1"));
      connection.Shutdown();
      EXPECT_TRUE(connection.Initialize(parameters));
      EXPECT_FALSE(connection.PostHeartbeat());
    }
    EXPECT_GT(freed.Blocks(), 0);
    EXPECT_EQ(freed.BlocksWithSecret(), 0);
    VaroCommunicationAPI::WipeApplicationToken(parameters);
  }
  for (const std::string& line : log->Lines()) EXPECT_EQ(line.find(shortToken), std::string::npos);
}

TEST(TokenInTrace, IsGoneAfterEachLine) {
  const sorvex::test::RecordingLogger log;
  const std::string request = "GET / HTTP/1.1\r\nSEC: " + std::string(longToken) + "\r\nEcho: " + longToken +
                              longToken + "\r\nSEC: " + longToken;
  const FreedMemory freed(longToken);
  {
    const auto trace = std::make_unique<VaroCommunicationAPI::CurlTrace>(
        WindowsAgentCommon::LoggerFactory::GetLogger("Trace"), VaroCommunicationAPI::Platform::SecretText(longToken));
    for (const char& byte : request) trace->Add(VaroCommunicationAPI::CurlTrace::Kind::HeaderOut, {&byte, 1});
  }
  EXPECT_GT(freed.Blocks(), 0);
  EXPECT_EQ(freed.BlocksWithSecret(), 0);
  EXPECT_EQ(log->Lines().size(), 3U);
}

}  // namespace
