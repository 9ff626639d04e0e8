// The direct TLS connection, over sockets with a scripted server.
#include "ApplicationKey.h"
#include "FakeComponentFactory.h"
#include "InstallationDirectory.h"
#include "ScriptedConnectionFactory.h"

#include "connection/SSLConfigServerConnection.h"
#include "platform/KeyContainer.h"

#include "support/HexBytes.h"
#include "support/LoopbackTcpServer.h"
#include "support/RecordingLogger.h"

#include <host/Digest.h>
#include <host/SystemError.h>

#include <ace/SSL/SSL_Context.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <array>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace sorvex::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;
using testing::StartsWith;
using VaroCommunicationAPI::SSLConfigServerConnection;
using WindowsAgentCommon::Format;
using WindowsAgentCommon::ParameterBlock;

constexpr std::uint32_t noResponse = 0x80000004;
constexpr std::uint32_t connectionFailed = 0x80000007;
constexpr const char* noFingerprint = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";

// Bytes from a server.

const std::string established2 = HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'");
const std::string established1 = HexBytes("00000001 0000000B 00000003 '1.0' 00000000");
const std::string typeOf1 = HexBytes("00000001");
const std::string configuration2 = HexBytes(
    "00000004 00000061 00000003 '2.0' 00000000 00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
    "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'");

/// A response without data.
std::string Response2(const std::string& type, const std::string& resultCode) {
  return HexBytes(type + " 0000000B 00000003 '2.0' " + resultCode);
}
std::string NoConfiguration2(const std::string& resultCode) {
  return Response2("00000004", resultCode) + HexBytes("00000000 00000000 00000000 00000000");
}
std::string Code2(const std::string& resultCode) {
  return Response2("00000005", resultCode) + HexBytes("00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'");
}
std::string NoCode2(const std::string& resultCode) {
  return Response2("00000005", resultCode) + HexBytes("00000000 00000000");
}

// Bytes from the agent. The identifier is "agent", the token "token-1".

const std::string establishment1 =
    HexBytes("00000001 00000022 00000003 '1.0' 00000003 '1.0' 00000005 'agent' 00000007 'token-1'");

/// The requests in what a connection received, by their sizes.
std::vector<std::string> Requests(std::string bytes) {
  std::vector<std::string> requests;
  while (bytes.size() >= 8) {
    std::size_t size = 0;
    for (std::size_t i = 4; i < 8; ++i) size = size * 256 + static_cast<unsigned char>(bytes[i]);
    requests.push_back(bytes.substr(0, size + 8));
    bytes.erase(0, size + 8);
  }
  return requests;
}

/// The connection flags of an establishment in 2.0, or nothing for anything else.
std::string Flags(const std::string& establishment) {
  return establishment.substr(0, 4) == HexBytes("00000006") ? establishment.substr(42, 4) : "no establishment in 2.0";
}

class DirectTls : public testing::Test {
 protected:
  DirectTls() {
    StoreInContainer(ApplicationKey::Of(1024), "");
    m_installation.Write("config/ConfigurationServer.PEM", "trusted");
    m_host.Offer("IConnectionFactory", [this] { return new ScriptedConnectionFactory(m_server); });
    m_host.LoadService("IConnectionFactory");
  }

  /// Reads the parameters, with those of every test.
  void Initialize(ParameterBlock parameters = {}) {
    parameters.emplace("ConfigurationServer", "server.example");
    parameters.emplace("ApplicationIdentifier", "agent");
    parameters.emplace("ApplicationToken", "token-1");
    EXPECT_TRUE(m_connection.Initialize(parameters));
  }

  /// Initialises, and connects to a server that continues with `says`.
  void ConnectTo(const std::string& says, int endError = 10101) {
    Initialize();
    m_server.m_next = {{established2 + says, endError}};
    ASSERT_TRUE(m_connection.Connect());
    m_log->Clear();
  }

  std::uint32_t ErrorCode() const { return static_cast<std::uint32_t>(m_connection.GetLastErrorCode()); }
  std::uint32_t ResultCode() const { return static_cast<std::uint32_t>(m_connection.GetLastResultCode()); }

  /// The connection's own lines.
  std::vector<std::string> Lines() const { return m_log->Lines("Code.SSLConfigServerConnection"); }

  std::string Fingerprint() { return m_connection.GetConfigurationFingerprint(m_bBlocked); }

  bool RetrievePatch(const std::vector<std::string>& names) {
    return m_connection.RetrieveSoftwarePatch(names, m_output, m_strMD5);
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  ScriptedServer m_server;
  FakeComponentFactory m_host;
  SSLConfigServerConnection m_connection;
  bool m_bBlocked = true;
  std::ostringstream m_output;
  std::string m_strMD5 = "before";
};

const std::vector<std::string> unknownVersionLines{
    "Debug Server version is unknown; defaulting to latest wire protocol version (v2.0).",
    "Debug Public key length reported to be 162 bytes long. Retrieving...",
    "Debug Retrieved public key. Creating API interface."};
constexpr const char* version1Line = "Debug Configuration server is using wire protocol v1.0.";
constexpr const char* anewLine =
    "Info The connection on which the server told its wire protocol is of no further use; connecting anew.";

// Not initialised

struct Operation {
  const char* name;
  std::function<bool(SSLConfigServerConnection&)> call;  ///< returns whether it did anything but fail
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class UninitialisedDirectTls : public DirectTls, public testing::WithParamInterface<Operation> {};

TEST_P(UninitialisedDirectTls, Fails) {
  m_server.m_next = {{established2 + Response2("00000002", "00000001")}};
  EXPECT_FALSE(GetParam().call(m_connection));
  EXPECT_EQ(ErrorCode(), 0U);
  EXPECT_EQ(ResultCode(), 0U);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "Success");
  EXPECT_EQ(m_server.m_attempts, 0);
  EXPECT_THAT(m_log->Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Operations, UninitialisedDirectTls,
    testing::Values(
        Operation{"RegisterInstance", [](auto& connection) { return connection.RegisterInstance("os", "7.2.5"); }},
        Operation{"TestConnection", [](auto& connection) { return connection.TestConnection(); }},
        Operation{"PostHeartbeat", [](auto& connection) { return connection.PostHeartbeat(); }},
        Operation{"UpdateStatus",
                  [](auto& connection) {
                    return connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1));
                  }},
        Operation{"GetConfigurationFingerprint",
                  [](auto& connection) {
                    bool bBlocked = true;
                    return connection.GetConfigurationFingerprint(bBlocked) != "" || bBlocked;
                  }},
        Operation{"RetrieveConfiguration",
                  [](auto& connection) {
                    std::ostringstream output;
                    std::string md5;
                    return connection.RetrieveConfiguration(output, md5) || !output.str().empty();
                  }},
        Operation{"RetrieveSoftwarePatch",
                  [](auto& connection) {
                    std::ostringstream output;
                    std::string md5;
                    return connection.RetrieveSoftwarePatch({"AgentCore"}, output, md5) || !output.str().empty();
                  }},
        Operation{"GetServerPublicKey",
                  [](auto& connection) {
                    std::uint32_t size = 9;
                    return connection.GetServerPublicKey(nullptr, size) || size != 0;
                  }},
        Operation{"Connect", [](auto& connection) { return connection.Connect(); }}),
    [](const auto& test) { return std::string(test.param.name); });

// Initialisation

TEST_F(DirectTls, LogsTheAutoCreationParametersAsTheyAreSent) {
  Initialize({{"AutoCreation.A", "1"}, {"AutoCreation.B", "2=3"}, {"NoAutoCreation.C", "4"}});
  EXPECT_THAT(m_log->Records(),
              ElementsAre(LogRecord{WindowsAgentCommon::LogLevel::Debug, "Code.SSLConfigServerConnection",
                                    "Log source auto-creation parameters: &AutoCreation.A=1&AutoCreation.B=2=3"}));
}

TEST_F(DirectTls, HasDefaults) {
  Initialize();
  m_server.m_next = {{established2}};
  ASSERT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_strHost, L"server.example");
  EXPECT_EQ(m_server.m_port, 8413U);
  EXPECT_THAT(m_server.m_flags, ElementsAre(26));
  EXPECT_THAT(m_server.m_calls, Each(Field(&FakeRawSocket::Call::timeoutMs, 120000U)));
}

TEST_F(DirectTls, TakesPortAndTimeoutFromTheParameters) {
  Initialize({{"ConfigurationServerPort", "9000"}, {"ConfigurationServerReadTimeout", "7"}});
  m_server.m_next = {{established2}};
  ASSERT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_port, 9000U);
  EXPECT_THAT(m_server.m_calls, Each(Field(&FakeRawSocket::Call::timeoutMs, 7000U)));
}

struct OutOfRange {
  const char* key;
  const char* value;
  const char* warning;
  std::uint32_t port;
  std::uint32_t timeoutMs;
};

class ParameterOutOfRange : public DirectTls, public testing::WithParamInterface<OutOfRange> {};

TEST_P(ParameterOutOfRange, IsBroughtToTheNearestBoundWithOneWarning) {
  Initialize({{GetParam().key, GetParam().value}});
  EXPECT_THAT(Lines(),
              ElementsAre(std::string("Warn ") + GetParam().warning, "Debug Log source auto-creation parameters: "));
  m_server.m_next = {{established2}};
  ASSERT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_port, GetParam().port);
  EXPECT_THAT(m_server.m_calls, Each(Field(&FakeRawSocket::Call::timeoutMs, GetParam().timeoutMs)));
}

INSTANTIATE_TEST_SUITE_P(
    Keys, ParameterOutOfRange,
    testing::Values(
        OutOfRange{"ConfigurationServerReadTimeout", "0",
                   "ConfigurationServerReadTimeout is 0, which is not within 1 to 4294; using 1.", 8413, 1000},
        OutOfRange{"ConfigurationServerReadTimeout", "4295",
                   "ConfigurationServerReadTimeout is 4295, which is not within 1 to 4294; using 4294.", 8413, 4294000},
        OutOfRange{"ConfigurationServerPort", "65536",
                   "ConfigurationServerPort is 65536, which is not within 0 to 65535; using 65535.", 65535, 120000}));

class ParameterAtItsBound : public DirectTls,
                            public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(ParameterAtItsBound, IsTakenWithoutWarning) {
  Initialize({{GetParam().first, GetParam().second}});
  EXPECT_THAT(Lines(), ElementsAre("Debug Log source auto-creation parameters: "));
}

INSTANTIATE_TEST_SUITE_P(Keys, ParameterAtItsBound,
                         testing::Values(std::pair{"ConfigurationServerReadTimeout", "1"},
                                         std::pair{"ConfigurationServerReadTimeout", "4294"},
                                         std::pair{"ConfigurationServerPort", "65535"}));

TEST_F(DirectTls, GivesItsSocketTheRangeOfVersions) {
  Initialize({{"ConfigurationServerMinSSLProtocol", "TLSv1.1"}, {"ConfigurationServerMaxSSLProtocol", "TLSv1.1"}});
  m_server.m_next = {{established2}};
  ASSERT_TRUE(m_connection.Connect());
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  m_server.m_protocols->applyTo(context);
  const auto options = SSL_CTX_get_options(context.context());
  EXPECT_NE(options & SSL_OP_NO_TLSv1, 0U);
  EXPECT_EQ(options & SSL_OP_NO_TLSv1_1, 0U);
  EXPECT_NE(options & SSL_OP_NO_TLSv1_2, 0U);
}

TEST_F(DirectTls, TellsARangeThatCannotBeRead) {
  Initialize({{"ConfigurationServerMinSSLProtocol", "SSLv3"}});
  EXPECT_THAT(m_log->Lines("Code.SSLConfigServerConnection.server.example"),
              ElementsAre("Error The minimum SSL protocol (SSLv3) is unrecognized."));
}

// Connecting

TEST_F(DirectTls, ConnectsInVersion2) {
  Initialize();
  m_log->Clear();
  m_server.m_next = {{established2}};
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(ResultCode(), 0U);
  EXPECT_EQ(Flags(m_server.m_received[0]), HexBytes("00000000"));
  EXPECT_THAT(Lines(), ElementsAreArray(unknownVersionLines));
  EXPECT_THAT(
      m_log->Lines("Code.SSLConfigServerAPIClient_v2.agent"),
      ElementsAre("Debug Sending connection establishment request...", "Debug Sent connection establishment request.",
                  "Debug Receiving connection establishment response...",
                  "Debug Received connection establishment response (result code 0, wire versions cli:2.0 --> "
                  "svr:2.0)"));
}

TEST_F(DirectTls, SendsTheContainersKeyWithItsDigest) {
  ConnectTo({});
  std::vector<std::uint8_t> key;
  ASSERT_EQ(VaroCommunicationAPI::Platform::ExportPublicKey(L"", key), 0);
  const std::string bytes(key.begin(), key.end());
  EXPECT_TRUE(m_server.m_received[0].ends_with(HexBytes("000000A2 00000020") +
                                               WindowsAgentCommon::MD5Sum(bytes.data(), bytes.size()) + bytes));
}

TEST_F(DirectTls, StaysConnectedUntilToldOtherwise) {
  ConnectTo({});
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_attempts, 1);
  EXPECT_EQ(m_server.m_open, 1);
  m_connection.Disconnect();
  EXPECT_EQ(m_server.m_open, 0);
  m_connection.Disconnect();
  m_server.m_next = {{established2}};
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_open, 1);
  // The client outlives its connections.
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(DirectTls, WithoutTrustedCertificateMakesNoSocket) {
  std::filesystem::remove(m_installation.ConfigDirectory() / "ConfigurationServer.PEM");
  Initialize({{"ConfigurationServer", "127.0.0.1"}, {"ConfigurationServerPort", std::to_string(UnusedPort())}});
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), 0x80000003U);
  EXPECT_EQ(ResultCode(), 0x80000003U);
  EXPECT_THAT(m_server.m_flags, IsEmpty());
}

TEST_F(DirectTls, WithoutFactoryTellsSo) {
  Initialize();
  m_log->Clear();
  m_host.UnloadService("IConnectionFactory");
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), connectionFailed);
  EXPECT_EQ(ResultCode(), connectionFailed);
  EXPECT_THAT(Lines(), ElementsAre("Error The service IConnectionFactory is not loaded; no socket can be made."));
}

TEST_F(DirectTls, ARefusedConnectionIsAFailedOne) {
  Initialize();
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), connectionFailed);
  EXPECT_EQ(ResultCode(), connectionFailed);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "The socket connection to the server failed");
  m_server.m_next = {{established2}};
  EXPECT_TRUE(m_connection.Connect());
}

TEST_F(DirectTls, WithoutKeyTellsSoAndLeavesTheCodesAlone) {
  RemoveContainer("");
  Initialize();
  m_log->Clear();
  m_server.m_next = {{established2}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), 0U);
  EXPECT_EQ(ResultCode(), 0U);
  EXPECT_EQ(m_server.m_open, 0);
  std::vector<std::uint8_t> key;
  const int error = VaroCommunicationAPI::Platform::ExportPublicKey(L"", key);
  EXPECT_THAT(Lines(), ElementsAre(unknownVersionLines[0],
                                   "Error An error occurred when attempting to retrieve the agent's public key. "
                                   "Reason: " +
                                       WindowsAgentCommon::GetLastErrorText(error)));
  EXPECT_FALSE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(Fingerprint(), "");
  // Once there is a key it continues.
  StoreInContainer(ApplicationKey::Of(1024), "");
  m_server.m_next = {{established2}};
  EXPECT_TRUE(m_connection.Connect());
}

TEST_F(DirectTls, AServersRefusalEndsTheConnection) {
  Initialize();
  m_server.m_next = {{HexBytes("00000006 00000012 00000003 '2.0' 80000005 00000003 '2.0'")}, {established2}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), 0x80000005U);
  EXPECT_EQ(ResultCode(), 0x80000005U);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "The authentication information presented to the server was rejected");
  EXPECT_EQ(m_server.m_open, 0);
  // Not a left-over that counts as connected.
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_attempts, 2);
  // A success leaves the error code.
  EXPECT_EQ(ErrorCode(), 0x80000005U);
  EXPECT_EQ(ResultCode(), 0U);
}

class FailedEstablishment : public DirectTls, public testing::WithParamInterface<Conversation> {};

TEST_P(FailedEstablishment, IsNoResponse) {
  Initialize();
  m_server.m_next = {GetParam(), {established2}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_open, 0);
  EXPECT_EQ(m_server.m_attempts, 1);
  EXPECT_THAT(Lines().back(), StartsWith("Debug The exchange with the configuration server failed: ("));
  EXPECT_TRUE(m_connection.Connect());
}

INSTANTIATE_TEST_SUITE_P(
    Answers, FailedEstablishment,
    testing::Values(Conversation{""}, Conversation{"", 137}, Conversation{established2.substr(0, 25)},
                    Conversation{established2.substr(0, 25), 137},
                    Conversation{Response2("00000003", "00000000")},                       // another type
                    Conversation{HexBytes("00000006 00000012 00100001") + established2}),  // a text over its bound
    [](const auto& test) { return std::to_string(test.index); });

// Servers of version 1.0

TEST_F(DirectTls, GoesOnInVersion1OnTheSameConnection) {
  Initialize();
  m_log->Clear();
  m_server.m_next = {{typeOf1 + established1}};
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_attempts, 1);
  const std::vector<std::string> requests = Requests(m_server.m_received[0]);
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(Flags(requests[0]), HexBytes("00000000"));
  EXPECT_EQ(requests[1], establishment1);
  std::vector<std::string> expected = unknownVersionLines;
  expected.emplace_back(version1Line);
  EXPECT_THAT(Lines(), ElementsAreArray(expected));
}

TEST_F(DirectTls, RemembersTheServersVersion) {
  Initialize();
  m_server.m_next = {{typeOf1 + established1}, {established1}};
  ASSERT_TRUE(m_connection.Connect());
  m_connection.Disconnect();
  m_log->Clear();
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_received[1], establishment1);
  EXPECT_THAT(Lines(), IsEmpty());
}

class LeftOverOfVersion1 : public DirectTls, public testing::WithParamInterface<Conversation> {};

TEST_P(LeftOverOfVersion1, IsMetByOneNewConnection) {
  Initialize();
  m_log->Clear();
  m_server.m_next = {GetParam(), {established1 + HexBytes("00000002 0000000B 00000003 '1.0' 00000001")}};
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(m_server.m_attempts, 2);
  EXPECT_THAT(Requests(m_server.m_received[1]),
              ElementsAre(establishment1, HexBytes("00000002 0000001A 00000003 '1.0' 00000002 'os' 00000005 '7.2.5' "
                                                   "00000000")));
  EXPECT_EQ(ErrorCode(), 0U);
  EXPECT_EQ(ResultCode(), 1U);
  std::vector<std::string> expected = unknownVersionLines;
  expected.insert(expected.end(), {version1Line, anewLine});
  EXPECT_THAT(Lines(), ElementsAreArray(expected));
}

INSTANTIATE_TEST_SUITE_P(Answers, LeftOverOfVersion1,
                         testing::Values(Conversation{established1},                          // the whole answer
                                         Conversation{typeOf1},                               // closed
                                         Conversation{typeOf1 + established1.substr(0, 18)},  // short
                                         Conversation{typeOf1, 10054},                        // reset
                                         Conversation{typeOf1 + Response2("00000063", "00000000")}),  // junk
                         [](const auto& test) { return std::to_string(test.index); });

TEST_F(DirectTls, ASilentServerOfVersion1IsNotMetByANewConnection) {
  Initialize();
  m_server.m_next = {{typeOf1, 137}, {established1}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_attempts, 1);
  EXPECT_EQ(m_server.m_open, 0);
  // Its version is remembered nevertheless.
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(m_server.m_received[1], establishment1);
}

TEST_F(DirectTls, ARefusalInVersion1IsAnAnswer) {
  Initialize();
  m_server.m_next = {{typeOf1 + HexBytes("00000001 0000000B 00000003 '1.0' 80000002")}, {established1}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), 0x80000002U);
  EXPECT_EQ(m_server.m_attempts, 1);
  EXPECT_EQ(m_server.m_open, 0);
}

TEST_F(DirectTls, ANewConnectionThatIsRefusedIsAFailedOne) {
  Initialize();
  m_server.m_next = {{established1}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), connectionFailed);
  EXPECT_EQ(ResultCode(), connectionFailed);
  EXPECT_EQ(m_server.m_attempts, 2);
  EXPECT_EQ(m_server.m_open, 0);
}

TEST_F(DirectTls, ANewConnectionThatFailsIsTheLast) {
  Initialize();
  m_log->Clear();
  m_server.m_next = {{established1}, {""}, {established1}};
  EXPECT_FALSE(m_connection.Connect());
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_attempts, 2);
  EXPECT_EQ(m_server.m_open, 0);
  // Only one failure is reported.
  EXPECT_EQ(Lines().size(), unknownVersionLines.size() + 3);
  EXPECT_THAT(Lines().back(), StartsWith("Debug The exchange with the configuration server failed: ("));
}

// Registration, status, test, heartbeat

TEST_F(DirectTls, RegistersOnce) {
  Initialize({{"AutoCreation.A", "1"}});
  m_server.m_next = {{established2 + Response2("00000002", "00000001")}};
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(ResultCode(), 1U);
  EXPECT_EQ(m_server.m_open, 0);
  const std::vector<std::string> requests = Requests(m_server.m_received[0]);
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[1],
            HexBytes("00000002 0000002B 00000003 '2.0' 00000002 'os' 00000005 '7.2.5' 00000011 '&AutoCreation.A=1'"));
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(m_server.m_attempts, 1);
}

TEST_F(DirectTls, RegistersAgainAfterARefusal) {
  Initialize();
  m_server.m_next = {{established2 + Response2("00000002", "80000005")},
                     {established2 + Response2("00000002", "00000002")}};
  EXPECT_FALSE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(ErrorCode(), 0x80000005U);
  EXPECT_EQ(ResultCode(), 0x80000005U);
  EXPECT_EQ(m_server.m_open, 0);
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(ResultCode(), 2U);
}

TEST_F(DirectTls, ReportsStatusAndWholeSeconds) {
  Initialize();
  m_server.m_next = {{established2 + Response2("00000003", "00000000")}};
  EXPECT_TRUE(m_connection.UpdateStatus(static_cast<WindowsAgentCommon::AgentUpdateStatus>(-2),
                                        ACE_Time_Value(static_cast<time_t>(0x1'6543'2100), 999999)));
  EXPECT_EQ(m_server.m_open, 0);
  const std::vector<std::string> requests = Requests(m_server.m_received[0]);
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[1], HexBytes("00000003 0000000F 00000003 '2.0' FFFFFFFE 65432100"));
}

TEST_F(DirectTls, ARefusedStatusFails) {
  Initialize();
  m_server.m_next = {{established2 + Response2("00000003", "80000006")}};
  EXPECT_FALSE(m_connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
  EXPECT_EQ(ErrorCode(), 0x80000006U);
  EXPECT_EQ(m_server.m_open, 0);
}

TEST_F(DirectTls, WithoutConnectionNothingIsExchanged) {
  Initialize();
  EXPECT_FALSE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(ErrorCode(), connectionFailed);
  EXPECT_FALSE(m_connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
  EXPECT_EQ(ErrorCode(), connectionFailed);
  EXPECT_FALSE(m_connection.TestConnection());
}

TEST_F(DirectTls, AnExchangeThatBreaksOffIsNoResponse) {
  Initialize();
  m_server.m_next = {{established2}, {established2, 137}};
  EXPECT_FALSE(m_connection.RegisterInstance("os", "7.2.5"));
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_FALSE(m_connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1)));
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_open, 0);
  EXPECT_EQ(m_connection.GetLastErrorMessage(),
            "The configuration server did not respond within a reasonable amount of time or the connection was "
            "terminated unexpectedly");
}

TEST_F(DirectTls, AnswersThatAreCutAtAnyByteAreNoResponse) {
  Initialize();
  const std::string answers = established2 + Response2("00000002", "00000001");
  for (std::size_t cut = 0; cut < answers.size(); ++cut) {
    m_server.m_next = {{answers.substr(0, cut)}};
    EXPECT_FALSE(m_connection.RegisterInstance("os", "7.2.5")) << cut;
    EXPECT_EQ(ErrorCode(), noResponse) << cut;
    EXPECT_EQ(ResultCode(), noResponse) << cut;
    EXPECT_EQ(m_server.m_open, 0) << cut;
  }
  m_server.m_next = {{answers}};
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
}

TEST_F(DirectTls, ARequestThatIsNotTakenWholeIsNoResponse) {
  Initialize();
  const std::string answers = established2 + Response2("00000002", "00000001");
  m_server.m_next = {{answers}};
  EXPECT_TRUE(m_connection.RegisterInstance("os", "7.2.5"));
  const std::vector<std::string> requests = Requests(m_server.m_received[0]);
  ASSERT_EQ(requests.size(), 2U);
  // Inside either request, and one byte before its end.
  for (const std::size_t room : {std::size_t{0}, requests[0].size() - 1, requests[0].size() + 9}) {
    SSLConfigServerConnection connection;
    connection.Initialize({{"ConfigurationServer", "server.example"},
                           {"ApplicationIdentifier", "agent"},
                           {"ApplicationToken", "token-1"}});
    m_server.m_next = {{.m_says = answers, .m_takes = room}};
    EXPECT_FALSE(connection.RegisterInstance("os", "7.2.5")) << room;
    EXPECT_EQ(static_cast<std::uint32_t>(connection.GetLastErrorCode()), noResponse) << room;
    EXPECT_EQ(static_cast<std::uint32_t>(connection.GetLastResultCode()), noResponse) << room;
    EXPECT_EQ(m_server.m_open, 0) << room;
  }
}

TEST_F(DirectTls, TestsWithTheDiagnosticFlagAndOnlyThen) {
  Initialize();
  m_server.m_next = {{established2}, {""}, {established2}};
  EXPECT_TRUE(m_connection.TestConnection());
  EXPECT_FALSE(m_connection.TestConnection());
  EXPECT_EQ(m_server.m_open, 0);
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(Flags(m_server.m_received[0]), HexBytes("00000001"));
  EXPECT_EQ(Flags(m_server.m_received[1]), HexBytes("00000001"));
  EXPECT_EQ(Flags(m_server.m_received[2]), HexBytes("00000000"));
}

TEST_F(DirectTls, HeartbeatIsLocalAndReturnsFalse) {
  Initialize();
  m_log->Clear();
  WindowsAgentCommon::ServiceConfig agentCore;
  agentCore.m_strName = "AgentCore";
  m_host.SetServiceConfig(agentCore);
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_THAT(m_log->Records(),
              ElementsAre(LogRecord{WindowsAgentCommon::LogLevel::Info, "Heartbeat.Code.SSLConfigServerConnection",
                                    "ApplicationHeartbeat"}));
  EXPECT_EQ(m_server.m_attempts, 0);
}

TEST_F(DirectTls, HeartbeatWithoutAgentCoreDoesNothing) {
  Initialize();
  m_log->Clear();
  EXPECT_FALSE(m_connection.PostHeartbeat());
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

// Fingerprint and configuration

class LocalFingerprint : public DirectTls {
 protected:
  /// What the agent sends as the fingerprint of its own configuration.
  std::string Sent() {
    ConnectTo(NoConfiguration2("00000005"));
    m_strReturned = Fingerprint();
    const std::vector<std::string> requests = Requests(m_server.m_received[0]);
    return requests.size() == 2 ? requests[1].substr(19) : "no request";
  }
  void WriteFile(std::string_view content) { m_installation.Write("config/AgentConfig.md5", content); }

  std::string m_strReturned;
};

constexpr const char* absentLine = "Info AgentConfig.md5 is not present - this will force a configuration update.";
constexpr const char* someFingerprint = "0123456789abcdef0123456789abcdef";

TEST_F(LocalFingerprint, WithoutFileIsAllF) {
  EXPECT_EQ(Sent(), noFingerprint);
  EXPECT_EQ(m_strReturned, noFingerprint);
  EXPECT_THAT(Lines(), ElementsAre(absentLine));
}

TEST_F(LocalFingerprint, OfAnEmptyFileIsThatOfNone) {
  WriteFile("\r\n\r\n");
  EXPECT_EQ(Sent(), noFingerprint);
  EXPECT_THAT(Lines(), ElementsAre(absentLine));
}

TEST_F(LocalFingerprint, OfAFileThatCannotBeReadIsAllF) {
  std::filesystem::create_directory(m_installation.ConfigDirectory() / "AgentConfig.md5");
  EXPECT_EQ(Sent(), noFingerprint);
  EXPECT_THAT(
      Lines(),
      ElementsAre("Warn AgentConfig.md5 is present but could not be read - this will force a configuration update."));
}

TEST_F(LocalFingerprint, IsTheFilesTextWithoutLineEnds) {
  WriteFile(std::string("\r\n") + someFingerprint + "\r\n");
  EXPECT_EQ(Sent(), someFingerprint);
  EXPECT_EQ(m_strReturned, someFingerprint);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LocalFingerprint, EndsAtTheFirstZero) {
  WriteFile(std::string("abc\n\0def", 8));
  EXPECT_EQ(Sent(), "abc");
}

TEST_F(LocalFingerprint, IsReadFromTheFirst128Bytes) {
  WriteFile(std::string(128, 'a') + "b");
  EXPECT_EQ(Sent(), std::string(128, 'a'));
}

TEST_F(LocalFingerprint, KeepsBlanks) {
  WriteFile(" a b \n");
  EXPECT_EQ(Sent(), " a b ");
}

TEST_F(DirectTls, ANewConfigurationIsAFingerprintThatNobodyHas) {
  m_installation.Write("config/AgentConfig.md5", someFingerprint);
  ConnectTo(configuration2);
  EXPECT_EQ(Fingerprint(), noFingerprint);
  EXPECT_FALSE(m_bBlocked);
  EXPECT_TRUE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
  EXPECT_EQ(m_output.str(), "abc");
  EXPECT_EQ(m_strMD5, "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(m_server.m_open, 1);
}

TEST_F(DirectTls, AnyOtherSuccessIsAFingerprintThatNobodyHas) {
  m_installation.Write("config/AgentConfig.md5", someFingerprint);
  ConnectTo(NoConfiguration2("00000001") + NoConfiguration2("00000004") + NoConfiguration2("00000006") +
            NoConfiguration2("7FFFFFFF"));
  for (const std::uint32_t code : {1U, 4U, 6U, 0x7FFFFFFFU}) {
    EXPECT_EQ(Fingerprint(), noFingerprint) << code;
    EXPECT_FALSE(m_bBlocked) << code;
    EXPECT_EQ(ResultCode(), code);
    EXPECT_EQ(ErrorCode(), 0U);
  }
}

TEST_F(DirectTls, BlockedUpdatesAreTold) {
  m_installation.Write("config/AgentConfig.md5", someFingerprint);
  ConnectTo(NoConfiguration2("00000007"));
  m_bBlocked = false;
  EXPECT_EQ(Fingerprint(), someFingerprint);
  EXPECT_TRUE(m_bBlocked);
  EXPECT_EQ(ResultCode(), 7U);
}

TEST_F(DirectTls, ARefusedConfigurationIsAnEmptyFingerprint) {
  m_installation.Write("config/AgentConfig.md5", someFingerprint);
  ConnectTo(NoConfiguration2("80000002"));
  EXPECT_EQ(Fingerprint(), "");
  EXPECT_EQ(ErrorCode(), 0x80000002U);
  EXPECT_EQ(ResultCode(), 0x80000002U);
  // An answer does not affect the connection.
  EXPECT_EQ(m_server.m_open, 1);
}

TEST_F(DirectTls, AFailedConfigurationExchangeReturnsTheLocalFingerprint) {
  m_installation.Write("config/AgentConfig.md5", someFingerprint);
  ConnectTo(configuration2.substr(0, 60));
  EXPECT_EQ(Fingerprint(), someFingerprint);
  EXPECT_FALSE(m_bBlocked);
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_open, 0);
  EXPECT_FALSE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
  EXPECT_EQ(Fingerprint(), "");
}

TEST_F(DirectTls, HasNoConfigurationBeforeOneCame) {
  ConnectTo({});
  EXPECT_FALSE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
  EXPECT_EQ(m_output.str(), "");
}

TEST_F(DirectTls, KeepsTheConfigurationButGivesItOnlyWithASocket) {
  ConnectTo(configuration2);
  ASSERT_EQ(Fingerprint(), noFingerprint);
  m_connection.Disconnect();
  EXPECT_FALSE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
  EXPECT_EQ(m_output.str(), "");
  m_server.m_next = {{established2}};
  ASSERT_TRUE(m_connection.Connect());
  EXPECT_TRUE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
  EXPECT_EQ(m_output.str(), "abc");
}

TEST_F(DirectTls, AConfigurationThatCannotBeWrittenIsNotDelivered) {
  ConnectTo(configuration2);
  ASSERT_EQ(Fingerprint(), noFingerprint);
  m_output.setstate(std::ios::badbit);
  EXPECT_FALSE(m_connection.RetrieveConfiguration(m_output, m_strMD5));
}

// Patches

TEST_F(DirectTls, NoNamesNeedNoPatch) {
  EXPECT_TRUE(RetrievePatch({}));
  Initialize();
  EXPECT_TRUE(RetrievePatch({}));
  EXPECT_EQ(m_server.m_attempts, 0);
}

TEST_F(DirectTls, FetchesThePatchOfTheNames) {
  ConnectTo(Code2("00000000"));
  EXPECT_TRUE(RetrievePatch({"A", "B-Z\xC3\x84"}));
  EXPECT_EQ(m_output.str(), "abc");
  EXPECT_EQ(m_strMD5, "900150983cd24fb0d6963f7d28e17f72");
  const std::vector<std::string> requests = Requests(m_server.m_received[0]);
  ASSERT_EQ(requests.size(), 2U);
  // Only ASCII letters become lower case.
  EXPECT_EQ(requests[1].substr(19), "x64_72_a,x64_72_b-z\xC3\x84");
  EXPECT_EQ(m_server.m_open, 1);
}

TEST_F(DirectTls, WithoutConnectionFetchesNoPatch) {
  Initialize();
  EXPECT_FALSE(RetrievePatch({"A"}));
  EXPECT_EQ(m_server.m_attempts, 0);
}

TEST_F(DirectTls, ASuccessWithoutDataIsNoPatch) {
  ConnectTo(NoCode2("00000005"));
  EXPECT_FALSE(RetrievePatch({"A"}));
  EXPECT_EQ(m_output.str(), "");
  EXPECT_EQ(ResultCode(), 5U);
  EXPECT_EQ(ErrorCode(), 0U);
}

TEST_F(DirectTls, ARefusedPatchIsNotWrittenWhateverCameWithIt) {
  ConnectTo(Code2("80000006"));
  EXPECT_FALSE(RetrievePatch({"A"}));
  EXPECT_EQ(m_output.str(), "");
  EXPECT_EQ(ErrorCode(), 0x80000006U);
  EXPECT_EQ(ResultCode(), 0x80000006U);
  EXPECT_EQ(m_server.m_open, 1);
}

TEST_F(DirectTls, AFailedPatchExchangeEndsTheConnection) {
  ConnectTo(Code2("00000000").substr(0, 30));
  EXPECT_FALSE(RetrievePatch({"A"}));
  EXPECT_EQ(m_output.str(), "");
  EXPECT_EQ(ErrorCode(), noResponse);
  EXPECT_EQ(ResultCode(), noResponse);
  EXPECT_EQ(m_server.m_open, 0);
}

TEST_F(DirectTls, AStreamThatThrowsIsNoExceptionOfTheConnection) {
  ConnectTo(Code2("00000000"));
  struct : std::streambuf {
  } full;
  std::ostream output(&full);
  output.exceptions(std::ios::badbit);
  EXPECT_FALSE(m_connection.RetrieveSoftwarePatch({"A"}, output, m_strMD5));
}

// The server's key

TEST_F(DirectTls, HandsOutTheServersKey) {
  ConnectTo(configuration2);
  std::uint32_t size = 9;
  EXPECT_FALSE(m_connection.GetServerPublicKey(nullptr, size));
  EXPECT_EQ(size, 0U);
  ASSERT_EQ(Fingerprint(), noFingerprint);
  EXPECT_TRUE(m_connection.GetServerPublicKey(nullptr, size));
  EXPECT_EQ(size, 3U);
  std::array<std::uint8_t, 4> buffer{'x', 'x', 'x', 'x'};
  size = 2;
  EXPECT_FALSE(m_connection.GetServerPublicKey(buffer.data(), size));
  EXPECT_EQ(size, 2U);
  EXPECT_THAT(buffer, Each('x'));
  size = 4;
  EXPECT_TRUE(m_connection.GetServerPublicKey(buffer.data(), size));
  EXPECT_EQ(size, 3U);
  EXPECT_THAT(buffer, ElementsAre('k', 'e', 'y', 'x'));
  // It outlives the connection that it came with.
  m_connection.Disconnect();
  size = 3;
  EXPECT_TRUE(m_connection.GetServerPublicKey(buffer.data(), size));
}

// Secrets

TEST_F(DirectTls, NeverLogsTheToken) {
  Initialize();
  m_server.m_next = {{established1}, {established1 + HexBytes("00000002 0000000B 00000003 '1.0' 80000005")}, {""}};
  m_connection.RegisterInstance("os", "7.2.5");
  m_connection.TestConnection();
  EXPECT_THAT(m_log->Lines(), Each(testing::Not(testing::HasSubstr("token-1"))));
}

}  // namespace
}  // namespace sorvex::test
