// Every misbehaviour of the configuration server, with every operation of the module's connection.
#include "connection/SSLConfigServerConnection.h"
#include "factory/ConnectionFactory.h"
#include "sockets/SSLTCPRawSocket.h"

#include "integration/configserver/ConfigServerProcess.h"
#include "support/ConnectionHandles.h"
#include "support/RecordingLogger.h"
#include "support/WaitUntil.h"
#include "unit/module/ApplicationKey.h"
#include "unit/module/FakeComponentFactory.h"
#include "unit/module/InstallationDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using VaroCommunicationAPI::SSLConfigServerConnection;

constexpr const char* localFingerprint = "0123456789abcdef0123456789abcdef";
constexpr const char* noFingerprint = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";
constexpr const char* configuration = "<AgentConfig/>";
const std::string patch(2000, 'p');

/// Its raw TLS sockets give up a handshake earlier than the product's.
class HastyFactory : public VaroCommunicationAPI::ConnectionFactory {
 public:
  explicit HastyFactory(std::chrono::seconds handshakeLimit) : m_handshakeLimit(handshakeLimit) {}

  void CreateSSLSocket(std::uint8_t, const VaroCommunicationAPI::SSLProtocolList& protocols,
                       std::shared_ptr<WindowsAgentCommon::IRawSocket>& socket) override {
    socket = std::make_shared<VaroCommunicationAPI::SSLTCPRawSocket>(protocols, m_handshakeLimit);
  }

 private:
  const std::chrono::seconds m_handshakeLimit;
};

/// What a host asks of a connection, up to the moment at which it would call `Disconnect`.
struct Operation {
  const char* exchange;  ///< as the server names it
  const char* name;
  std::function<bool(SSLConfigServerConnection&)> run;
};

const std::vector<Operation> operations{
    {"register", "RegisterInstance", [](auto& connection) { return connection.RegisterInstance("os", "7.2.5"); }},
    {"status", "UpdateStatus",
     [](auto& connection) {
       return connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING, ACE_Time_Value(1));
     }},
    {"configuration", "GetConfigurationFingerprint",
     [](auto& connection) {
       if (!connection.Connect()) return false;
       bool bBlocked = true;
       const std::string fingerprint = connection.GetConfigurationFingerprint(bBlocked);
       EXPECT_FALSE(bBlocked);
       if (fingerprint == noFingerprint) return true;
       EXPECT_EQ(fingerprint, localFingerprint);
       return false;
     }},
    {"configuration", "RetrieveConfiguration",
     [](auto& connection) {
       bool bBlocked = true;
       std::ostringstream output;
       std::string md5;
       if (!connection.Connect()) return false;
       connection.GetConfigurationFingerprint(bBlocked);
       const bool bRetrieved = connection.RetrieveConfiguration(output, md5);
       EXPECT_EQ(output.str(), bRetrieved ? configuration : "");
       return bRetrieved;
     }},
    {"patch", "RetrieveSoftwarePatch",
     [](auto& connection) {
       std::ostringstream output;
       std::string md5;
       if (!connection.Connect()) return false;
       const bool bRetrieved = connection.RetrieveSoftwarePatch({"Core"}, output, md5);
       EXPECT_TRUE(output.str() == (bRetrieved ? patch : ""));
       return bRetrieved;
     }},
};

constexpr std::uint32_t none = 0;
constexpr std::uint32_t noResponse = 0x80000004;
constexpr std::uint32_t connectionFailed = 0x80000007;

struct FaultCase {
  const char* name;
  const char* fault;
  std::uint32_t atTheStart = none;   ///< the agent's result for the answer to the establishment; `none`: it succeeds
  std::uint32_t inTheAnswer = none;  ///< its result for the answer to the operation's own request
  std::chrono::seconds limit = patience;  ///< of the agent, for a handshake and for an answer
  bool isOfDataOnly = false;              ///< it does not show where nothing is delivered
  bool isOfTheStartOnly = false;
};

void PrintTo(const FaultCase& fault, std::ostream* out) { *out << fault.name; }

class ServerFault : public testing::TestWithParam<FaultCase> {
 protected:
  ServerFault() {
    StoreInContainer(ApplicationKey::Of(1024), "");
    m_installation.Write("config/ConfigurationServer.PEM", ServerIdentity().CertificatePem());
    m_installation.Write("config/AgentConfig.md5", localFingerprint);
    m_host.Offer("IConnectionFactory", [] { return new HastyFactory(GetParam().limit); });
    m_host.LoadService("IConnectionFactory");
  }

  /// Makes the server misbehave once, when it answers an `exchange`.
  void Expect(const Operation& operation, const char* exchange, std::uint32_t code) {
    SCOPED_TRACE(std::string(operation.name) + ", fault on " + exchange);
    std::vector<std::string> arguments{"--fault", GetParam().fault, "--fault-times", "1"};
    if (*exchange != '\0') arguments.insert(arguments.end(), {"--fault-on", exchange});
    const ConfigServer server(arguments);
    server.Write("default/AgentConfig.xml", configuration);
    server.Write("patches/core.tar.gz", patch);
    SSLConfigServerConnection connection;
    connection.Initialize({{"ConfigurationServer", "127.0.0.1"},
                           {"ConfigurationServerPort", std::to_string(server.Port())},
                           {"ConfigurationServerReadTimeout", std::to_string(GetParam().limit.count())},
                           {"ApplicationIdentifier", "agent"},
                           {"ApplicationToken", "token"}});

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(operation.run(connection), code == none);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, patience);
    EXPECT_EQ(static_cast<std::uint32_t>(connection.GetLastErrorCode()), code);
    if (code != none) {
      EXPECT_EQ(static_cast<std::uint32_t>(connection.GetLastResultCode()), code);
      EXPECT_THAT(InternetHandles(), testing::IsEmpty());
    }
    connection.Disconnect();

    EXPECT_TRUE(operation.run(connection));
    EXPECT_GE(connection.GetLastResultCode(), 0);
    connection.Disconnect();
    EXPECT_THAT(InternetHandles(), testing::IsEmpty());
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  FakeComponentFactory m_host;
};

TEST_P(ServerFault, AtTheStartLeavesEveryOperationWithItsCodeAndTheNextOneWorks) {
  if (GetParam().isOfDataOnly) GTEST_SKIP() << "an establishment has no data";
  const bool isOfConnections = GetParam().atTheStart == connectionFailed;
  for (const Operation& operation : operations) {
    Expect(operation, isOfConnections ? "" : "connect", GetParam().atTheStart);
  }
}

TEST_P(ServerFault, InTheAnswerLeavesEveryOperationWithItsCodeAndTheNextOneWorks) {
  if (GetParam().isOfTheStartOnly) GTEST_SKIP() << "it shows in the establishment alone";
  for (const Operation& operation : operations) {
    const bool hasData =
        std::string(operation.exchange) == "configuration" || std::string(operation.exchange) == "patch";
    if (hasData || !GetParam().isOfDataOnly) Expect(operation, operation.exchange, GetParam().inTheAnswer);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ServerFault,
    testing::Values(
        FaultCase{"Late", "late:20", noResponse, noResponse, 2s},
        FaultCase{"CutAtOnce", "cut:0", noResponse, noResponse},
        FaultCase{"CutInside", "cut:17", noResponse, noResponse}, FaultCase{"ByteByByte", "byte-by-byte", none, none},
        // Only the type of the establishment's response is checked, deliberately.
        FaultCase{"WrongType", "wrong-type", noResponse, none},
        FaultCase{"OversizedString", "oversized-string", noResponse, noResponse},
        FaultCase{
            .name = "OversizedBinary", .fault = "oversized-binary", .inTheAnswer = noResponse, .isOfDataOnly = true},
        // The caller gets the digest unchanged.
        FaultCase{.name = "WrongDigest", .fault = "wrong-digest", .isOfDataOnly = true},
        FaultCase{.name = "SilentHandshake",
                  .fault = "silent-handshake",
                  .atTheStart = connectionFailed,
                  .limit = 2s,
                  .isOfTheStartOnly = true},
        FaultCase{"CloseAfterRequest", "close-after-request", noResponse, noResponse},
        FaultCase{.name = "Speaks1", .fault = "speaks-1.0", .isOfTheStartOnly = true},
        FaultCase{.name = "Speaks1TypeOnly", .fault = "speaks-1.0-type-only", .isOfTheStartOnly = true}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace sorvex::test
