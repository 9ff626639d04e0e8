// The HTTPS connection against a scripted server. Its requests go to port 443, which the environment's proxy leads to
// the server's own port.
#include "connection/ConfigServerConnection.h"

#include "InstallationDirectory.h"
#include "support/ConfigServerConnectionPeer.h"
#include "support/ConnectProxy.h"
#include "support/RecordingLogger.h"
#include "support/ScriptedHttpsServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sorvex::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;
using VaroCommunicationAPI::ConfigServerConnection;
using VaroCommunicationAPI::ConfigServerConnectionPeer;
using WindowsAgentCommon::ParameterBlock;

// libcurl's numbers.
constexpr int malformedUrl = 3;
constexpr int cannotConnect = 7;
constexpr int partialFile = 18;
constexpr int writeError = 23;
constexpr int tlsConnectError = 35;
constexpr int badArgument = 43;
constexpr int receiveError = 56;
constexpr int peerFailedVerification = 60;
constexpr int badTrustFile = 77;

constexpr const char* certificateProblem =
    "There was a problem when attempting to retrieve the configuration server's certificate.";
constexpr std::size_t mebibyte = 1048576;

/// Keeps what is written, after `whenWritten` has been called with it.
class WatchedStream : private std::streambuf, public std::ostream {
 public:
  explicit WatchedStream(std::function<void(const std::string&)> whenWritten)
      : std::ostream(this), m_whenWritten(std::move(whenWritten)) {}

  std::string Text() const { return m_text; }

 private:
  std::streamsize xsputn(const char* data, std::streamsize size) override {
    const std::string piece(data, static_cast<std::size_t>(size));
    m_whenWritten(piece);
    m_text += piece;
    return size;
  }

  std::function<void(const std::string&)> m_whenWritten;
  std::string m_text;
};

class HttpsConnection : public testing::Test {
 protected:
  /// Starts the server for the connection.
  template <class Script>
  ScriptedHttpsServer& Serve(Script script, const TlsServerOptions& options = {}) {
    m_server.emplace(std::move(script), options);
    m_proxy.emplace(m_server->Port());
    m_environment.emplace(m_proxy->Port());
    return *m_server;
  }

  ParameterBlock Parameters(ParameterBlock more = {}) const {
    more.emplace("ConfigurationServer", "127.0.0.1");
    more.emplace("ConfigurationServerPort", std::to_string(m_server ? m_server->Port() : 1));
    more.emplace("ApplicationIdentifier", "agent");
    more.emplace("ApplicationToken", "to-ken");
    return more;
  }

  /// The first of several entries with one key counts, so `more` goes before the usual ones.
  bool Initialize(const ParameterBlock& more = {}) { return m_connection.Initialize(Parameters(more)); }

  void Trust(const TlsIdentity& identity) { m_installation.Write("config/Console.PEM", identity.CertificatePem()); }
  std::filesystem::path TrustFile() const { return m_installation.ConfigDirectory() / "Console.PEM"; }

  /// Serves `answers` to a connection that trusts the server.
  ScriptedHttpsServer& Talk(std::vector<std::string> answers, const ParameterBlock& more = {}) {
    return Talk<std::vector<std::string>>(std::move(answers), more);
  }
  template <class Script>
  ScriptedHttpsServer& Talk(Script script, const ParameterBlock& more = {}) {
    Trust(ServerIdentity());
    ScriptedHttpsServer& server = Serve(std::move(script));
    EXPECT_TRUE(Initialize(more));
    m_log->Clear();
    return server;
  }

  void ExpectCodes(int error, int result) {
    EXPECT_EQ(m_connection.GetLastErrorCode(), error);
    EXPECT_EQ(m_connection.GetLastResultCode(), result);
  }

  std::vector<std::string> Lines() const { return m_log->Lines("Code.ConfigServerConnection."); }

  std::string FailureLine(const std::string& command, const std::string& query, const std::string& detail) const {
    return "Error Failed to run '" + command +
           "' command on configuration server.\n    URL: https://127.0.0.1/console/sorvex?Name=" + command +
           "&Identifier=agent" + query + " PostFields: \n    Error code: " + detail;
  }

  InstallationDirectory m_installation;
  RecordingLogger m_log;
  std::optional<ScriptedHttpsServer> m_server;
  std::optional<ConnectProxy> m_proxy;
  std::optional<ScopedProxy> m_environment;
  ConfigServerConnection m_connection;
  std::string m_md5 = "untouched";
  std::ostringstream m_output;
};

// Requests

TEST_F(HttpsConnection, SendsTheTokenInAHeaderOfItsOwn) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(server.Requests(), ElementsAre("GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1\r\n"
                                             "Host: 127.0.0.1\r\n"
                                             "Accept: */*\r\n"
                                             "SEC: to-ken\r\n"
                                             "\r\n"));
}

TEST_F(HttpsConnection, SendsNoHeaderForAnEmptyToken) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")}, {{"ApplicationToken", ""}});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(server.Requests(), ElementsAre("GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1\r\n"
                                             "Host: 127.0.0.1\r\n"
                                             "Accept: */*\r\n"
                                             "\r\n"));
}

TEST_F(HttpsConnection, GoesToPort443AndTellsAProxyNothing) {
  Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.TestConnection());
  ASSERT_THAT(m_proxy->Requests(), SizeIs(1));
  EXPECT_THAT(m_proxy->Requests()[0], StartsWith("CONNECT 127.0.0.1:443 HTTP/1.1\r\n"));
  EXPECT_THAT(m_proxy->Requests()[0], AllOf(Not(HasSubstr("SEC")), Not(HasSubstr("to-ken")), Not(HasSubstr("agent"))));
}

TEST_F(HttpsConnection, FetchesTheCertificateFromThePortThatIsConfigured) {
  ScriptedHttpsServer& server = Serve(std::vector{HttpAnswer("")});
  ASSERT_TRUE(Initialize());
  EXPECT_TRUE(m_connection.TestConnection());
  EXPECT_EQ(TemporaryDirectory::Read(TrustFile()), ServerIdentity().CertificatePem());
  EXPECT_EQ(server.Connections(), 2);
  EXPECT_THAT(m_proxy->Requests(), SizeIs(1));
  EXPECT_TRUE(m_connection.TestConnection());
  EXPECT_EQ(server.Connections(), 2);
}

TEST_F(HttpsConnection, KeepsItsConnectionToTheServer) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("answer")});
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(i % 2 == 0 ? m_connection.PostHeartbeat() : m_connection.RetrieveConfiguration(m_output, m_md5));
  }
  EXPECT_THAT(server.Requests(), SizeIs(100));
  EXPECT_EQ(server.Connections(), 1);
  EXPECT_EQ(server.Handshakes(), 1);
}

struct Request {
  const char* name;
  std::function<void(ConfigServerConnection&)> call;
  std::string line;  ///< after "GET /console/sorvex?Name=" and before " HTTP/1.1"
};

void PrintTo(const Request& request, std::ostream* out) { *out << request.name; }

Request Registration(const char* name, const char* osVersion, const char* agentVersion, const char* line) {
  return {name, [=](auto& connection) { connection.RegisterInstance(osVersion, agentVersion); },
          std::string("RegisterInstance&Identifier=agent") + line};
}

Request Status(const char* name, int status, std::int64_t uptime, const char* line) {
  return {name,
          [=](auto& connection) {
            connection.UpdateStatus(static_cast<WindowsAgentCommon::AgentUpdateStatus>(status),
                                    ACE_Time_Value(static_cast<time_t>(uptime), 999999));
          },
          std::string("UpdateStatus&Identifier=agent") + line};
}

Request Patch(const char* name, std::vector<std::string> components, const char* line) {
  return {name,
          [components = std::move(components)](auto& connection) {
            std::ostringstream output;
            std::string md5;
            connection.RetrieveSoftwarePatch(components, output, md5);
          },
          std::string("RetrieveSoftwarePatch&Identifier=agent") + line};
}

const Request requests[] = {
    Registration("RegisterInstance", "Debian", "7.2.5", "&OS+version=Debian&Sorvex+version=7.2.5"),
    Registration("RegisterInstanceBlanks", " a  b ", "7 2", "&OS+version=%20a%20%20b%20&Sorvex+version=7%202"),
    Registration("RegisterInstanceAmpersand", "a&Status=1", "&", "&OS+version=a%26Status%3D1&Sorvex+version=%26"),
    Registration("RegisterInstancePlus", "a+b", "+", "&OS+version=a%2Bb&Sorvex+version=%2B"),
    Registration("RegisterInstancePercent", "a%20b", "%", "&OS+version=a%2520b&Sorvex+version=%25"),
    Registration("RegisterInstanceUtf8",
                 "Gr\xC3\xB6\xC3\x9F"
                 "e",
                 "\xE9\x8D\xB5", "&OS+version=Gr%C3%B6%C3%9Fe&Sorvex+version=%E9%8D%B5"),
    Registration("RegisterInstanceNothing", "", "", "&OS+version=&Sorvex+version="),
    Registration("RegisterInstanceLineBreak", "a\r\nb", "#?/", "&OS+version=a%0D%0Ab&Sorvex+version=%23%3F%2F"),
    {"TestConnection", [](auto& connection) { connection.TestConnection(); }, "PostHeartbeat&Identifier=agent"},
    {"PostHeartbeat", [](auto& connection) { connection.PostHeartbeat(); }, "PostHeartbeat&Identifier=agent"},
    Status("UpdateStatus", 1, 99, "&Status=1&Uptime=99"),
    Status("UpdateStatusOfAnyNumber", -7, 0, "&Status=-7&Uptime=0"),
    Status("UpdateStatusIn32Bits", 3, 4294967395, "&Status=3&Uptime=99"),
    {"GetConfigurationFingerprint",
     [](auto& connection) {
       bool bBlocked = false;
       connection.GetConfigurationFingerprint(bBlocked);
     },
     "GetConfigurationFingerprint&Identifier=agent"},
    {"RetrieveConfiguration",
     [](auto& connection) {
       std::ostringstream output;
       std::string md5;
       connection.RetrieveConfiguration(output, md5);
     },
     "RetrieveConfiguration&Identifier=agent"},
    Patch("RetrieveSoftwarePatch", {"A", "B"}, "&OutOfDateList=x64_72_A%2Cx64_72_B"),
    Patch("RetrieveSoftwarePatchOfNothing", {}, "&OutOfDateList="),
    Patch("RetrieveSoftwarePatchOfAnEmptyName", {""}, "&OutOfDateList=x64_72_"),
    Patch("RetrieveSoftwarePatchOfAnyNames", {"a b", "&+%", "\xC3\xB6", "Core"},
          "&OutOfDateList=x64_72_a%20b%2Cx64_72_%26%2B%25%2Cx64_72_%C3%B6%2Cx64_72_Core"),
};

class HttpsRequest : public HttpsConnection, public testing::WithParamInterface<Request> {};

TEST_P(HttpsRequest, IsThisLine) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("answer")});
  GetParam().call(m_connection);
  EXPECT_THAT(server.RequestLines(), ElementsAre("GET /console/sorvex?Name=" + GetParam().line + " HTTP/1.1"));
  ExpectCodes(0, 200);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
  EXPECT_THAT(Lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Fields, HttpsRequest, testing::ValuesIn(requests),
                         [](const auto& request) { return std::string(request.param.name); });

TEST_F(HttpsConnection, HasNoNameForAnUnknownCommand) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  EXPECT_TRUE(ConfigServerConnectionPeer::RunCommand(m_connection, 8, "&A=1", &m_output));
  EXPECT_THAT(server.RequestLines(), ElementsAre("GET /console/sorvex?Name=&Identifier=agent&A=1 HTTP/1.1"));
}

// Parameters

TEST_F(HttpsConnection, SendsAutoCreationParametersWithARegistration) {
  Trust(ServerIdentity());
  ScriptedHttpsServer& server = Serve(std::vector{HttpAnswer("")});
  EXPECT_TRUE(Initialize({{"AutoCreation.Foo", "a b"},
                          {"AutoCreation.G\xC3\xB6&", "1=+%"},
                          {"AutoCreation.None", ""},
                          {"NoAutoCreation.Bar", "c"}}));
  EXPECT_THAT(Lines(), ElementsAre("Debug Log source auto-creation parameters: "
                                   "&AutoCreation.Foo=a%20b&AutoCreation.G%C3%B6%26=1%3D%2B%25&AutoCreation.None="));
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(server.RequestLines(),
              ElementsAre("GET /console/sorvex?Name=RegisterInstance&Identifier=agent&OS+version=os&Sorvex+version=1"
                          "&AutoCreation.Foo=a%20b&AutoCreation.G%C3%B6%26=1%3D%2B%25&AutoCreation.None= HTTP/1.1",
                          "GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1"));
}

TEST_F(HttpsConnection, SaysNothingOfItsStartWithoutReason) {
  EXPECT_TRUE(Initialize());
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

TEST_F(HttpsConnection, SendsAnEmptyIdentifier) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")}, {{"ApplicationIdentifier", ""}});
  EXPECT_TRUE(m_connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING,
                                        ACE_Time_Value(static_cast<time_t>(1))));
  EXPECT_THAT(server.RequestLines(),
              ElementsAre("GET /console/sorvex?Name=UpdateStatus&Identifier=&Status=1&Uptime=1 HTTP/1.1"));
}

TEST_F(HttpsConnection, SendsAnIdentifierAsItIsAndWarnsOnce) {
  Trust(ServerIdentity());
  ScriptedHttpsServer& server = Serve(std::vector{HttpAnswer("")});
  EXPECT_TRUE(Initialize({{"ApplicationIdentifier", "a&b=+%41\xC3\xB6"}}));
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(Lines(), ElementsAre("Warn ApplicationIdentifier (a&b=+%41\xC3\xB6) holds characters that change the URL "
                                   "of a request; it is sent as it is."));
  EXPECT_THAT(server.RequestLines(),
              Each("GET /console/sorvex?Name=PostHeartbeat&Identifier=a&b=+%41\xC3\xB6 HTTP/1.1"));
}

class HttpsIdentifier : public HttpsConnection, public testing::WithParamInterface<const char*> {};

TEST_P(HttpsIdentifier, IsWarnedOf) {
  EXPECT_TRUE(Initialize({{"ApplicationIdentifier", std::string("agent") + GetParam() + "1"}}));
  EXPECT_THAT(Lines(), ElementsAre(AllOf(StartsWith("Warn ApplicationIdentifier (agent"),
                                         HasSubstr("1) holds characters that change the URL of a request"))));
}

INSTANTIATE_TEST_SUITE_P(Characters, HttpsIdentifier,
                         testing::Values(" ", "&", "+", "%", "#", "\"", "<", ">", "\\", "^", "`", "{", "|", "}", "[",
                                         "]", "\t", "\x7F", "\xC3\xB6"));

TEST_F(HttpsConnection, TakesEveryOtherCharacterInAnIdentifier) {
  EXPECT_TRUE(Initialize({{"ApplicationIdentifier", "AZaz09-._~!$'()*,;=:@/?"}}));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(HttpsConnection, ReportsAnIdentifierThatMakesTheUrlInvalid) {
  for (const char* const identifier : {"a b", "a\tb", "a\nb"}) {
    ScriptedHttpsServer& server = Talk({HttpAnswer("")}, {{"ApplicationIdentifier", identifier}});
    EXPECT_FALSE(m_connection.PostHeartbeat());
    ExpectCodes(malformedUrl, 0);
    EXPECT_EQ(server.Connections(), 0);
    m_connection.Shutdown();
  }
}

TEST_F(HttpsConnection, SendsNothingAfterAnIdentifierThatBeginsAFragment) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")}, {{"ApplicationIdentifier", "a#b"}});
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_THAT(server.RequestLines(), ElementsAre("GET /console/sorvex?Name=RegisterInstance&Identifier=a HTTP/1.1"));
}

TEST_F(HttpsConnection, ReadsTheRangeOfTlsVersions) {
  EXPECT_TRUE(
      Initialize({{"ConfigurationServerMinSSLProtocol", "SSLv2"}, {"ConfigurationServerMaxSSLProtocol", "TLS"}}));
  EXPECT_THAT(m_log->Records(),
              ElementsAre(LogRecord{WindowsAgentCommon::LogLevel::Error, "Code.ConfigServerConnection.127.0.0.1",
                                    "The minimum SSL protocol (SSLv2) is unrecognized."},
                          LogRecord{WindowsAgentCommon::LogLevel::Error, "Code.ConfigServerConnection.127.0.0.1",
                                    "The maximum SSL protocol (TLS) is unrecognized."}));
}

TEST_F(HttpsConnection, FetchesTheCertificateWithinTheRangeOfTlsVersions) {
  TlsServerOptions options;
  options.minVersion = TLS1_2_VERSION;
  Serve(std::vector{HttpAnswer("")}, options);
  ASSERT_TRUE(Initialize({{"ConfigurationServerMaxSSLProtocol", "TLSv1.1"}}));
  EXPECT_FALSE(m_connection.TestConnection());
  EXPECT_TRUE(WaitUntil([this] { return m_server->FailedHandshakes() == 1; }));
  ExpectCodes(tlsConnectError, 0);
}

class HttpsFetch : public HttpsConnection, public testing::WithParamInterface<int> {};

TEST_P(HttpsFetch, MeetsServersOfAVersionBetween10And12) {
  TlsServerOptions options;
  options.minVersion = GetParam();
  options.maxVersion = GetParam();
  Serve(std::vector{HttpAnswer("")}, options);
  ASSERT_TRUE(Initialize());
  // The request itself uses libcurl's own TLS versions.
  m_connection.TestConnection();
  EXPECT_TRUE(std::filesystem::exists(TrustFile()));
  EXPECT_THAT(m_log->Lines("Code.CertificateManager."), Not(Contains(StartsWith("Error "))));
}

INSTANTIATE_TEST_SUITE_P(Versions, HttpsFetch, testing::Values(TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION));

TEST_F(HttpsConnection, FetchesTheCertificateFromPort443UnlessToldOtherwise) {
  for (const char* const port : {"", "65536", "-1", "https"}) {
    ConfigServerConnection connection;
    EXPECT_TRUE(connection.Initialize({{"ConfigurationServerPort", port}}));
    EXPECT_EQ(ConfigServerConnectionPeer::Port(connection), 443) << port;
  }
  ConfigServerConnection connection;
  EXPECT_TRUE(connection.Initialize({}));
  EXPECT_EQ(ConfigServerConnectionPeer::Port(connection), 443);
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

TEST_F(HttpsConnection, IsInitializedOnce) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  EXPECT_TRUE(Initialize({{"ApplicationIdentifier", "another&"}, {"AutoCreation.Foo", "1"}}));
  EXPECT_THAT(m_log->Records(), IsEmpty());
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_THAT(server.RequestLines(),
              ElementsAre("GET /console/sorvex?Name=RegisterInstance&Identifier=agent&OS+version=os&Sorvex+version=1 "
                          "HTTP/1.1"));
}

TEST_F(HttpsConnection, StartsFromNothingAfterShutdown) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("<html>"), HttpAnswer("<html>", "404 Not Found")},
                                     {{"AutoCreation.Foo", "1"}, {"ConfigurationServerMaxSSLProtocol", "TLSv1"}});
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  m_connection.Shutdown();
  EXPECT_TRUE(server.AllEnded());
  std::filesystem::remove(TrustFile());
  m_log->Clear();
  EXPECT_TRUE(Initialize({{"ApplicationIdentifier", "another"}, {"ApplicationToken", "sec-ret"}}));
  ExpectCodes(0, 0);
  EXPECT_THAT(ConfigServerConnectionPeer::Headers(m_connection), IsEmpty());
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  // The warning is armed again, and the certificate was fetched again.
  EXPECT_THAT(Lines(), ElementsAre(StartsWith("Warn RegisterInstance returned no error code")));
  EXPECT_TRUE(std::filesystem::exists(TrustFile()));
  EXPECT_THAT(server.Requests().back(),
              AllOf(StartsWith("GET /console/sorvex?Name=RegisterInstance&Identifier=another&OS+version=os&"
                               "Sorvex+version=1 HTTP/1.1\r\n"),
                    HasSubstr("\r\nSEC: sec-ret\r\n"), Not(HasSubstr("to-ken"))));
}

TEST_F(HttpsConnection, StartsFromTheWholeRangeOfTlsVersionsAfterShutdown) {
  TlsServerOptions options;
  options.maxVersion = TLS1_VERSION;
  Serve(std::vector{HttpAnswer("")}, options);
  ASSERT_TRUE(Initialize({{"ConfigurationServerMinSSLProtocol", "TLSv1.2"}}));
  m_connection.TestConnection();
  EXPECT_FALSE(std::filesystem::exists(TrustFile()));
  m_connection.Shutdown();
  // A range that is refused changes nothing.
  ASSERT_TRUE(Initialize({{"ConfigurationServerMinSSLProtocol", "TLSv1.3"}}));
  m_connection.TestConnection();
  EXPECT_TRUE(std::filesystem::exists(TrustFile()));
}

TEST_F(HttpsConnection, HasNoTokenAfterShutdown) {
  EXPECT_TRUE(Initialize());
  EXPECT_EQ(ConfigServerConnectionPeer::Token(m_connection), "to-ken");
  m_connection.Shutdown();
  EXPECT_EQ(ConfigServerConnectionPeer::Token(m_connection), "");
}

TEST_F(HttpsConnection, ForgetsTheLastFailureWithShutdownAndInitialize) {
  Talk({HttpAnswer("")});
  m_environment.emplace(UnusedPort());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  m_connection.Shutdown();
  m_connection.Shutdown();
  EXPECT_EQ(m_connection.GetLastErrorCode(), cannotConnect);
  EXPECT_THAT(m_connection.GetLastErrorMessage(), StartsWith("Failed to connect to 127.0.0.1 port "));
  EXPECT_TRUE(Initialize());
  ExpectCodes(0, 0);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
}

// What fails without a request

struct Operation {
  const char* name;
  std::function<bool(ConfigServerConnection&)> call;  ///< returns whether it succeeded
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

const Operation operations[] = {
    {"RegisterInstance", [](auto& connection) { return connection.RegisterInstance("os", "1"); }},
    {"TestConnection", [](auto& connection) { return connection.TestConnection(); }},
    {"PostHeartbeat", [](auto& connection) { return connection.PostHeartbeat(); }},
    {"UpdateStatus",
     [](auto& connection) {
       return connection.UpdateStatus(WindowsAgentCommon::AGENT_UPDATE_STATUS_RUNNING,
                                      ACE_Time_Value(static_cast<time_t>(1)));
     }},
    {"GetConfigurationFingerprint",
     [](auto& connection) {
       bool bBlocked = false;
       return connection.GetConfigurationFingerprint(bBlocked) != "";
     }},
    {"RetrieveConfiguration",
     [](auto& connection) {
       std::ostringstream output;
       std::string md5;
       return connection.RetrieveConfiguration(output, md5);
     }},
    {"RetrieveSoftwarePatch",
     [](auto& connection) {
       std::ostringstream output;
       std::string md5;
       return connection.RetrieveSoftwarePatch({"A"}, output, md5);
     }},
};

class HttpsOperation : public HttpsConnection, public testing::WithParamInterface<Operation> {
 protected:
  bool Call() { return GetParam().call(m_connection); }
};

TEST_P(HttpsOperation, FailsBeforeInitialize) {
  EXPECT_FALSE(Call());
  ExpectCodes(0, 0);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

TEST_P(HttpsOperation, FailsAfterShutdown) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("answer")});
  m_connection.Shutdown();
  EXPECT_FALSE(Call());
  EXPECT_THAT(m_log->Records(), IsEmpty());
  EXPECT_EQ(server.Connections(), 0);
}

TEST_P(HttpsOperation, FailsWithoutACertificate) {
  Talk({HttpAnswer("answer")});
  m_connection.Shutdown();
  std::filesystem::remove(TrustFile());
  ASSERT_TRUE(Initialize({{"ConfigurationServerPort", std::to_string(UnusedPort())}}));
  m_log->Clear();
  EXPECT_FALSE(Call());
  ExpectCodes(tlsConnectError, 0);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), certificateProblem);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(m_log->Lines("Code.CertificateManager."),
              ElementsAre("Info Attempting to retrieve the certificate from the configuration server",
                          "Error Cannot connect to configuration server (10061)"));
  EXPECT_THAT(m_proxy->Requests(), IsEmpty());
}

TEST_P(HttpsOperation, FailsWithLibcurlsCodeAndText) {
  Talk({HttpAnswer("answer")});
  const ScopedProxy nowhere(UnusedPort());
  EXPECT_FALSE(Call());
  ExpectCodes(cannotConnect, 0);
  EXPECT_THAT(m_connection.GetLastErrorMessage(), StartsWith("Failed to connect to 127.0.0.1 port "));
  ASSERT_THAT(Lines(), SizeIs(1));
  EXPECT_THAT(Lines()[0],
              AllOf(StartsWith("Error Failed to run '"),
                    HasSubstr("' command on configuration server.\n    URL: https://127.0.0.1/console/"),
                    HasSubstr(" PostFields: \n    Error code: 7 (" + m_connection.GetLastErrorMessage() + ")")));
}

TEST_P(HttpsOperation, FailsWhenItsAnswerIsCut) {
  Talk([](TlsServerSession& session, int) {
    session.Write("HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n");
    session.Close();
  });
  EXPECT_FALSE(Call());
  ExpectCodes(partialFile, 200);
  EXPECT_THAT(m_connection.GetLastErrorMessage(), HasSubstr("20 bytes remaining to read"));
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("\n    Error code: 18 (")));
}

TEST_P(HttpsOperation, RefusesATokenWithALineBreak) {
  for (const std::string& token : {std::string("to\nken"), std::string("to\rken"), std::string("to-ken\n"),
                                   std::string("to\0ken", 6), std::string("a\r\nX: b")}) {
    ScriptedHttpsServer& server = Talk({HttpAnswer("answer")}, {{"ApplicationToken", token}});
    EXPECT_FALSE(Call());
    ExpectCodes(badArgument, 0);
    EXPECT_EQ(m_connection.GetLastErrorMessage(), "The ApplicationToken holds a line break or a zero byte.");
    EXPECT_THAT(Lines(), ElementsAre(AllOf(StartsWith("Error Failed to run '"),
                                           HasSubstr("' command on configuration server: the ApplicationToken holds a "
                                                     "line break or a zero byte."))));
    EXPECT_THAT(m_log->Lines(), Each(AllOf(Not(HasSubstr("ken\\n")), Not(HasSubstr("to\\")))));
    EXPECT_EQ(server.Connections(), 0);
    m_connection.Shutdown();
  }
}

TEST_P(HttpsOperation, SucceedsWithAnyStatus) {
  for (const int status : {404, 500, 302, 200}) {
    Talk({"HTTP/1.1 " + std::to_string(status) +
          " Text\r\nLocation: https://127.0.0.1/other\r\nContent-Length: 4\r\n"
          "\r\nbody"});
    EXPECT_TRUE(Call()) << status;
    ExpectCodes(0, status);
    EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
    EXPECT_THAT(m_server->Requests(), SizeIs(1));
    EXPECT_THAT(Lines(), IsEmpty());
    m_connection.Shutdown();
  }
}

INSTANTIATE_TEST_SUITE_P(All, HttpsOperation, testing::ValuesIn(operations),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(HttpsConnection, TriesAgainAfterAFailedCertificate) {
  Serve(std::vector{HttpAnswer("")}, [] {
    TlsServerOptions options;
    options.unansweredHandshakes = 1;
    return options;
  }());
  ASSERT_TRUE(Initialize());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  ExpectCodes(tlsConnectError, 0);
  EXPECT_TRUE(m_connection.PostHeartbeat());
  ExpectCodes(0, 200);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
}

TEST_F(HttpsConnection, ReportsTheWholeFailure) {
  Talk({HttpAnswer("")}, {{"AutoCreation.Foo", "1"}});
  m_environment.emplace(UnusedPort());
  EXPECT_FALSE(m_connection.RegisterInstance("a b", "1"));
  EXPECT_THAT(Lines(),
              ElementsAre(FailureLine("RegisterInstance", "&OS+version=a%20b&Sorvex+version=1&AutoCreation.Foo=1",
                                      "7 (" + m_connection.GetLastErrorMessage() + ")")));
}

TEST_F(HttpsConnection, NamesATestOfTheConnectionAHeartbeat) {
  Talk({HttpAnswer("")});
  m_environment.emplace(UnusedPort());
  EXPECT_FALSE(m_connection.TestConnection());
  EXPECT_THAT(Lines(), ElementsAre(StartsWith("Error Failed to run 'PostHeartbeat' command")));
}

TEST_F(HttpsConnection, ReportsAProxyThatRefuses) {
  Talk({HttpAnswer("")});
  const ConnectProxy refusing(1, "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
  m_environment.emplace(refusing.Port());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  ExpectCodes(receiveError, 0);
  EXPECT_THAT(m_connection.GetLastErrorMessage(), HasSubstr("502"));
}

TEST_F(HttpsConnection, DoesNotSendTheRequestBeforeInPlaceOfOneThatIsTooLong) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  // libcurl takes texts of 8,000,000 bytes.
  EXPECT_FALSE(m_connection.RegisterInstance(std::string(8000001, 'a'), "1"));
  ExpectCodes(badArgument, 0);
  EXPECT_THAT(server.Requests(), SizeIs(1));
}

// Trust

TEST_F(HttpsConnection, RefusesAServerWithAnotherCertificateUntilTheFileIsGone) {
  const TlsIdentity changed("loopback");
  TlsServerOptions options;
  options.identity = &changed;
  Trust(ServerIdentity());
  ScriptedHttpsServer& server = Serve(std::vector{HttpAnswer("")}, options);
  ASSERT_TRUE(Initialize());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  ExpectCodes(peerFailedVerification, 0);
  EXPECT_THAT(m_connection.GetLastErrorMessage(), StartsWith("SSL certificate problem: "));
  EXPECT_THAT(Lines(),
              ElementsAre(FailureLine("PostHeartbeat", "", "60 (" + m_connection.GetLastErrorMessage() + ")")));
  EXPECT_THAT(server.Requests(), IsEmpty());

  // The check of the file is made once per connection object.
  std::filesystem::remove(TrustFile());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  // libcurl reads the file for each connection to the server, or caches it.
  EXPECT_THAT(m_connection.GetLastErrorCode(), AnyOf(badTrustFile, peerFailedVerification));
  EXPECT_FALSE(std::filesystem::exists(TrustFile()));

  ConfigServerConnection anew;
  ASSERT_TRUE(anew.Initialize(Parameters()));
  EXPECT_TRUE(anew.PostHeartbeat());
  EXPECT_EQ(anew.GetLastErrorCode(), 0);
  EXPECT_EQ(TemporaryDirectory::Read(TrustFile()), changed.CertificatePem());
}

TEST_F(HttpsConnection, TrustsNobodyByAFileWithoutACertificate) {
  m_installation.Write("config/Console.PEM", "trusted");
  ScriptedHttpsServer& server = Serve(std::vector{HttpAnswer("")});
  ASSERT_TRUE(Initialize());
  EXPECT_FALSE(m_connection.PostHeartbeat());
  ExpectCodes(badTrustFile, 0);
  EXPECT_THAT(server.Requests(), IsEmpty());
}

TEST_F(HttpsConnection, TrustsTheIssuerInTheFile) {
  const TlsIdentity authority("authority");
  const TlsIdentity issued("somebody else", &authority);
  TlsServerOptions options;
  options.identity = &issued;
  Trust(authority);
  Serve(std::vector{HttpAnswer("")}, options);
  ASSERT_TRUE(Initialize());
  EXPECT_TRUE(m_connection.PostHeartbeat());
}

// Answers

TEST_F(HttpsConnection, TakesAnEmptyRegistrationForASuccess) {
  Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
}

const std::string page = "<!DOCTYPE html>\n<html><body>Sign in</body></html>";

std::string HtmlWarning(const std::string& operation) {
  return "Warn " + operation +
         " returned no error code, but we received an unexpected response (HTML content). Please verify that the "
         "ApplicationToken is correct and valid.";
}

TEST_F(HttpsConnection, WarnsOfARunOfHtmlRegistrationsOnce) {
  Talk({HttpAnswer(page), HttpAnswer(page), HttpAnswer(""), HttpAnswer(page), HttpAnswer("done"), HttpAnswer(page)});
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  ExpectCodes(0, 200);
  EXPECT_THAT(Lines(), ElementsAre(HtmlWarning("RegisterInstance")));
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  EXPECT_THAT(Lines(), SizeIs(1));
  // An empty answer does not arm the warning again.
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  EXPECT_THAT(Lines(), SizeIs(1));
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_FALSE(m_connection.RegisterInstance("os", "1"));
  EXPECT_THAT(Lines(), ElementsAre(HtmlWarning("RegisterInstance"), HtmlWarning("RegisterInstance")));
}

class HttpsPage : public HttpsOperation {};

TEST_P(HttpsPage, IsRefusedAndWarnedOfEachTime) {
  Talk({HttpAnswer(page), HttpAnswer("<html>"), HttpAnswer("<HTML>"), HttpAnswer("<htm"), HttpAnswer("")});
  EXPECT_FALSE(Call());
  ExpectCodes(0, 200);
  EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
  EXPECT_FALSE(Call());
  EXPECT_THAT(Lines(), ElementsAre(HtmlWarning(GetParam().name), HtmlWarning(GetParam().name)));
  EXPECT_TRUE(Call());
  EXPECT_TRUE(Call());
  EXPECT_TRUE(Call());
  EXPECT_THAT(Lines(), SizeIs(2));
}

TEST_P(HttpsPage, IsNotLookedForInAFailedAnswer) {
  Talk([](TlsServerSession& session, int) {
    session.Write("HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n<html>");
    session.Close();
  });
  EXPECT_FALSE(Call());
  EXPECT_THAT(Lines(), ElementsAre(StartsWith("Error Failed to run ")));
}

INSTANTIATE_TEST_SUITE_P(Operations, HttpsPage, testing::Values(operations[1], operations[2], operations[3]),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(HttpsConnection, ReturnsTheFingerprintAsItCame) {
  const std::string fingerprint = " 900150983cd24fb0d6963f7d28e17f72\r\n";
  Talk({HttpAnswer(fingerprint), HttpAnswer(page), HttpAnswer("<html>\n"), HttpAnswer("html>"), HttpAnswer("<H"),
        HttpAnswer("")});
  bool bBlocked = true;
  for (const std::string& body :
       {fingerprint, page, std::string("<html>\n"), std::string("html>"), std::string("<H"), std::string()}) {
    EXPECT_EQ(m_connection.GetConfigurationFingerprint(bBlocked), body);
    EXPECT_FALSE(bBlocked);
    bBlocked = true;
  }
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(HttpsConnection, TakesABeginningOfATagForNoFingerprint) {
  const std::vector<std::string> bodies{"<", "<h", "<ht", "<htm", "<html", "<html>"};
  std::vector<std::string> answers;
  for (const std::string& body : bodies) answers.push_back(HttpAnswer(body));
  Talk(answers);
  for (const std::string& body : bodies) {
    bool bBlocked = true;
    EXPECT_EQ(m_connection.GetConfigurationFingerprint(bBlocked), "") << body;
    EXPECT_FALSE(bBlocked);
    ExpectCodes(0, 200);
  }
  EXPECT_THAT(Lines(), SizeIs(6));
  EXPECT_THAT(Lines(), Each(HtmlWarning("GetConfigurationFingerprint")));
}

TEST_F(HttpsConnection, BlocksUpdatesWhenThereIsNoContent) {
  Talk({"HTTP/1.1 204 No Content\r\n\r\n"});
  bool bBlocked = false;
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(bBlocked), "");
  EXPECT_TRUE(bBlocked);
  ExpectCodes(0, 204);
}

TEST_F(HttpsConnection, DoesNotBlockUpdatesWhenTheRequestFails) {
  Talk({HttpAnswer("")});
  m_environment.emplace(UnusedPort());
  bool bBlocked = true;
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(bBlocked), "");
  EXPECT_FALSE(bBlocked);
}

TEST_F(HttpsConnection, LeavesTheBlockedFlagAloneBeforeInitialize) {
  bool bBlocked = true;
  EXPECT_EQ(m_connection.GetConfigurationFingerprint(bBlocked), "");
  EXPECT_TRUE(bBlocked);
}

TEST_F(HttpsConnection, TakesAnyAnswerWithNoContentForASuccess) {
  Talk({"HTTP/1.1 204 No Content\r\n\r\n"});
  EXPECT_TRUE(m_connection.RegisterInstance("os", "1"));
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_TRUE(m_connection.RetrieveConfiguration(m_output, m_md5));
  EXPECT_EQ(m_output.str(), "");
}

TEST_F(HttpsConnection, PassesConfigurationAndPatchOnUnread) {
  const std::string body = page + std::string("\0\xFF\r\n", 4);
  Talk({HttpAnswer(body)});
  EXPECT_TRUE(m_connection.RetrieveConfiguration(m_output, m_md5));
  EXPECT_EQ(m_output.str(), body);
  EXPECT_TRUE(m_connection.RetrieveSoftwarePatch({"A"}, m_output, m_md5));
  EXPECT_EQ(m_output.str(), body + body);
  EXPECT_EQ(m_md5, "untouched");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(HttpsConnection, StreamsABodyAsItComes) {
  std::atomic<std::size_t> received{0};
  bool bSeen = false;
  Talk([&](TlsServerSession& session, int) {
    session.Write("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nhalf");
    bSeen = WaitUntil([&] { return received == 4; });
    session.Write("rest");
  });
  WatchedStream output([&](const std::string& piece) { received += piece.size(); });
  EXPECT_TRUE(m_connection.RetrieveConfiguration(output, m_md5));
  EXPECT_TRUE(bSeen);
  EXPECT_EQ(output.Text(), "halfrest");
}

TEST_F(HttpsConnection, WaitsForAServerThatGoesSilentInABody) {
  std::atomic<bool> bHeard{false};
  ScriptedHttpsServer& server = Talk([&](TlsServerSession& session, int) {
    session.Write("HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nhalf");
    m_server->HoldUntilStopped();
    session.Close();
  });
  std::thread stopper([&] {
    WaitUntil([&] { return bHeard.load(); });
    server.Stop();
  });
  WatchedStream output([&](const std::string&) { bHeard = true; });
  EXPECT_FALSE(m_connection.RetrieveConfiguration(output, m_md5));
  stopper.join();
  EXPECT_EQ(output.Text(), "half");
  ExpectCodes(partialFile, 200);
}

class HttpsHeldAnswer : public HttpsOperation {};

TEST_P(HttpsHeldAnswer, HasAtMostOneMebibyte) {
  ScriptedHttpsServer& server =
      Talk({HttpAnswer(std::string(mebibyte, 'a')), HttpAnswer(std::string(mebibyte + 1, 'a')), HttpAnswer("b")});
  EXPECT_TRUE(Call());
  ExpectCodes(0, 200);
  const bool bSucceeded = Call();
  // The fingerprint is the body unchanged.
  EXPECT_EQ(bSucceeded, std::string(GetParam().name) == "GetConfigurationFingerprint");
  ExpectCodes(writeError, 200);
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("\n    Error code: 23 (")));
  EXPECT_TRUE(Call());
  EXPECT_THAT(server.Requests(), SizeIs(3));
}

INSTANTIATE_TEST_SUITE_P(Operations, HttpsHeldAnswer,
                         testing::Values(operations[0], operations[1], operations[2], operations[3], operations[4]),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(HttpsConnection, StreamsMoreThanAMebibyte) {
  const std::string body(5 * mebibyte, 'p');
  Talk({HttpAnswer(body)});
  EXPECT_TRUE(m_connection.RetrieveSoftwarePatch({"A"}, m_output, m_md5));
  EXPECT_EQ(m_output.str(), body);
}

// Streams that fail, and commands inside commands

TEST_F(HttpsConnection, EndsTheRequestOfAStreamThatFails) {
  Talk({HttpAnswer("body")});
  m_output.setstate(std::ios::badbit);
  EXPECT_FALSE(m_connection.RetrieveConfiguration(m_output, m_md5));
  ExpectCodes(writeError, 200);
  EXPECT_EQ(Lines().size(), 1U);
  std::ostringstream good;
  EXPECT_TRUE(m_connection.RetrieveConfiguration(good, m_md5));
  EXPECT_EQ(good.str(), "body");
}

TEST_F(HttpsConnection, EndsTheRequestOfAStreamThatThrows) {
  Talk({HttpAnswer("body")});
  const auto fail = [](const std::string&) { throw std::runtime_error("full"); };
  WatchedStream loud(fail);
  loud.exceptions(std::ios::badbit);
  EXPECT_FALSE(m_connection.RetrieveConfiguration(loud, m_md5));
  ExpectCodes(writeError, 200);
  WatchedStream quiet(fail);
  EXPECT_FALSE(m_connection.RetrieveConfiguration(quiet, m_md5));
  ExpectCodes(writeError, 200);
}

TEST_F(HttpsConnection, EndsARequestWithoutStream) {
  Talk({HttpAnswer("body")});
  EXPECT_FALSE(ConfigServerConnectionPeer::RunCommand(m_connection, 6, {}, nullptr));
  ExpectCodes(writeError, 200);
  EXPECT_THAT(Lines(),
              ElementsAre(FailureLine("RetrieveConfiguration", "", "23 (" + m_connection.GetLastErrorMessage() + ")")));
}

TEST_F(HttpsConnection, WritesWhatLibcurlHandsOver) {
  EXPECT_EQ(ConfigServerConnectionPeer::OnResponseBody(m_connection, "abcdef", &m_output, 2), 6U);
  EXPECT_EQ(m_output.str(), "abcdef");
  EXPECT_EQ(ConfigServerConnectionPeer::OnResponseBody(m_connection, "abcdef", nullptr, 1), 0U);
}

class HttpsNestedOperation : public HttpsOperation {};

TEST_P(HttpsNestedOperation, IsRefusedAndChangesNothing) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("", "404 Not Found"), HttpAnswer("body"), HttpAnswer("after")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  int calls = 0;
  WatchedStream output([&](const std::string&) {
    ++calls;
    const bool bSucceeded = Call();
    // A test reports how the command before the running one ended.
    EXPECT_EQ(bSucceeded, std::string(GetParam().name) == "TestConnection");
    ExpectCodes(0, 404);
    EXPECT_EQ(m_connection.GetLastErrorMessage(), "");
  });
  EXPECT_TRUE(m_connection.RetrieveConfiguration(output, m_md5));
  EXPECT_EQ(output.Text(), "body");
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(server.Requests(), SizeIs(2));
  EXPECT_THAT(Lines(), IsEmpty());
  // It is over, and the next one runs.
  EXPECT_TRUE(Call());
  EXPECT_THAT(server.Requests(), SizeIs(3));
}

INSTANTIATE_TEST_SUITE_P(All, HttpsNestedOperation, testing::ValuesIn(operations),
                         [](const auto& operation) { return std::string(operation.param.name); });

TEST_F(HttpsConnection, TellsByANestedTestHowThePreviousCommandFailed) {
  Talk({HttpAnswer("body")});
  {
    const ScopedProxy nowhere(UnusedPort());
    EXPECT_FALSE(m_connection.PostHeartbeat());
  }
  const std::string message = m_connection.GetLastErrorMessage();
  bool bSucceeded = true;
  WatchedStream output([&](const std::string&) {
    bSucceeded = m_connection.TestConnection();
    ExpectCodes(cannotConnect, 0);
  });
  EXPECT_TRUE(m_connection.RetrieveConfiguration(output, m_md5));
  EXPECT_FALSE(bSucceeded);
  ExpectCodes(0, 200);
  EXPECT_NE(message, "");
}

TEST_F(HttpsConnection, FollowsThePreviousResultInANestedFingerprint) {
  Talk({"HTTP/1.1 204 No Content\r\n\r\n", HttpAnswer("body")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  bool bBlocked = false;
  WatchedStream output([&](const std::string&) { m_connection.GetConfigurationFingerprint(bBlocked); });
  EXPECT_TRUE(m_connection.RetrieveConfiguration(output, m_md5));
  EXPECT_TRUE(bBlocked);
}

// Response headers

TEST_F(HttpsConnection, KeepsTheHeadersOfTheLastResponse) {
  Talk(
      {"HTTP/1.1 100 Continue\r\nInterim: 1\r\n\r\nHTTP/1.1 302 Found \r\nLocation:https://a/b\r\nA:  x y \r\n"
       "A: z\r\nContent-Length: 0\r\n\r\n",
       HttpAnswer("")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(ConfigServerConnectionPeer::Headers(m_connection),
              ElementsAre(Pair("A", "z"), Pair("Content-Length", "0"), Pair("Location", "https://a/b"),
                          Pair("Version", "HTTP/1.1 302 Found")));
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(ConfigServerConnectionPeer::Headers(m_connection),
              ElementsAre(Pair("Content-Length", "0"), Pair("Version", "HTTP/1.1 200 OK")));
}

TEST_F(HttpsConnection, TakesAHeaderLineWhateverItIs) {
  EXPECT_EQ(ConfigServerConnectionPeer::OnResponseHeader(m_connection, "A: 1\r\n", 2), 6U);
  EXPECT_EQ(ConfigServerConnectionPeer::OnResponseHeader(m_connection, "\r\n", 1), 2U);
  EXPECT_EQ(ConfigServerConnectionPeer::OnResponseHeader(m_connection, std::string("B:\0", 3), 1), 3U);
  EXPECT_THAT(ConfigServerConnectionPeer::Headers(m_connection),
              ElementsAre(Pair("A", "1"), Pair("B", std::string(1, '\0'))));
}

TEST_F(HttpsConnection, SurvivesAHeaderWithoutColonAndAHugeOne) {
  ScriptedHttpsServer& server =
      Talk({"HTTP/1.1 200 OK\r\nA: 1\r\nno colon\r\nContent-Length: 0\r\n\r\n",
            "HTTP/1.1 200 OK\r\nA: " + std::string(mebibyte, 'h') + "\r\nContent-Length: 0\r\n\r\n", HttpAnswer("")});
  for (int i = 0; i < 2; ++i) {
    // libcurl's versions differ in which of them they accept.
    const bool bSucceeded = m_connection.PostHeartbeat();
    EXPECT_EQ(bSucceeded, m_connection.GetLastErrorCode() == 0);
    EXPECT_EQ(Lines().empty(), bSucceeded);
    EXPECT_THAT(ConfigServerConnectionPeer::Headers(m_connection), Not(Contains(Pair("no colon", ""))));
    m_log->Clear();
  }
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(server.Requests(), SizeIs(3));
}

// The rest of the interface

TEST_F(HttpsConnection, HasNoServerPublicKey) {
  std::uint8_t buffer[4] = {1, 2, 3, 4};
  std::uint32_t size = 4;
  EXPECT_FALSE(m_connection.GetServerPublicKey(buffer, size));
  EXPECT_EQ(size, 0U);
  size = 9;
  EXPECT_FALSE(m_connection.GetServerPublicKey(nullptr, size));
  EXPECT_EQ(size, 0U);
  EXPECT_THAT(buffer, ElementsAre(1, 2, 3, 4));
}

TEST_F(HttpsConnection, ConnectsAndDisconnectsByDoingNothing) {
  EXPECT_TRUE(m_connection.Connect());
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.Connect());
  EXPECT_EQ(server.Connections(), 0);
  EXPECT_TRUE(m_connection.PostHeartbeat());
  m_connection.Disconnect();
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_EQ(server.Connections(), 1);
}

TEST_F(HttpsConnection, EndsItsConnectionWithItsLife) {
  ScriptedHttpsServer& server = Talk({HttpAnswer("")});
  {
    ConfigServerConnection connection;
    ASSERT_TRUE(connection.Initialize(Parameters()));
    EXPECT_TRUE(connection.PostHeartbeat());
  }
  EXPECT_TRUE(server.AllEnded());
  EXPECT_EQ(server.Connections(), 1);
}

// Curl.Verbose

TEST_F(HttpsConnection, TellsNothingOfItsRequestsUnlessAsked) {
  Talk({HttpAnswer("")});
  EXPECT_TRUE(m_connection.PostHeartbeat());
  EXPECT_THAT(m_log->Records(), IsEmpty());
}

TEST_F(HttpsConnection, TellsOfItsRequestsWithoutTheToken) {
  Talk({"HTTP/1.1 200 OK\r\nEcho: to-ken\r\nContent-Length: 4\r\n\r\nbody"}, {{"Curl.Verbose", "true"}});
  testing::internal::CaptureStderr();
  EXPECT_TRUE(m_connection.PostHeartbeat());
  m_connection.Shutdown();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(Lines(), Contains("Debug libcurl: > GET /console/sorvex?Name=PostHeartbeat&Identifier=agent HTTP/1.1"));
  EXPECT_THAT(Lines(), Contains("Debug libcurl: > SEC: ***"));
  EXPECT_THAT(Lines(), Contains("Debug libcurl: < HTTP/1.1 200 OK"));
  EXPECT_THAT(Lines(), Contains("Debug libcurl: < Echo: ***"));
  EXPECT_THAT(Lines(), Each(StartsWith("Debug libcurl: ")));
  EXPECT_THAT(m_log->Lines(), Each(AllOf(Not(HasSubstr("to-ken")), Not(HasSubstr("body")))));
}

}  // namespace
}  // namespace sorvex::test
