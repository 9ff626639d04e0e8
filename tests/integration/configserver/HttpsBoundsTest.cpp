// What the server does over HTTPS with malicious or incomplete clients.
#include "ConfigServerFixture.h"
#include "HttpsClient.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <memory>

namespace sorvex::test {
namespace {

using testing::HasSubstr;

const std::string heartbeat = HttpsCommandRequest("Name=PostHeartbeat&Identifier=agent-7");

struct HostileRequest {
  const char* name;
  std::string request;
  int status;
  const char* reason;
};

void PrintTo(const HostileRequest& request, std::ostream* out) { *out << request.name; }

class HttpsHostileRequest : public testing::TestWithParam<HostileRequest> {};

TEST_P(HttpsHostileRequest, IsRefusedAndEndsTheConnection) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", "<AgentConfig/>");
  HttpsClient client(server.HttpsPort());
  // Another one after it gets no answer.
  const HttpsAnswer answer = client.Ask(GetParam().request + heartbeat);
  EXPECT_EQ(answer.status, GetParam().status);
  EXPECT_EQ(answer.body, "");
  EXPECT_EQ(answer.Field("Connection"), "close");
  EXPECT_EQ(client.ReceiveAll(), "");
  server.WaitForLog(std::string(" - request: ") + std::to_string(GetParam().status) + " " + GetParam().reason);
  EXPECT_TRUE(std::filesystem::is_empty(server.Folder() / "agents"));
}

HostileRequest Target(const char* name, const std::string& target, int status, const char* reason) {
  return {name, "GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n", status, reason};
}

std::string WithField(const std::string& field) {
  return HttpsCommandRequest("Name=PostHeartbeat&Identifier=a", httpsToken, field + "\r\n");
}

const std::string agent = "/console/sorvex?Identifier=agent-7&Name=";

INSTANTIATE_TEST_SUITE_P(
    Kinds, HttpsHostileRequest,
    testing::Values(
        Target("OtherPath", "/?Name=PostHeartbeat&Identifier=a", 404, "unknown path"),
        Target("PathWithMore", "/console/sorvex/?Name=PostHeartbeat&Identifier=a", 404, "unknown path"),
        Target("PathOfAFile", "/console/../certificate.pem", 404, "unknown path"),
        Target("NoQuery", "/console/sorvex", 400, "no Name"),
        Target("NoIdentifier", "/console/sorvex?Name=PostHeartbeat", 400, "no Identifier"),
        Target("UnknownCommand", agent + "Shutdown", 400, "unknown command"),
        Target("EmptyCommand", agent, 400, "unknown command"),
        Target("RepeatedKey", agent + "PostHeartbeat&Identifier=other", 400, "a key comes twice"),
        Target("RepeatedUnknownKey", agent + "PostHeartbeat&x=1&x=1", 400, "a key comes twice"),
        Target("EscapeWithoutDigits", agent + "PostHeartbeat&x=%", 400, "invalid escape"),
        Target("EscapeWithOneDigit", agent + "PostHeartbeat&x=%4", 400, "invalid escape"),
        Target("EscapeOfLetters", agent + "PostHeartbeat&x=%zz", 400, "invalid escape"),
        Target("EscapeInAKey", agent + "PostHeartbeat&%4=1", 400, "invalid escape"),
        Target("NoVersion", agent + "RegisterInstance&OS+version=1", 400, "no Sorvex version"),
        Target("NoUptime", agent + "UpdateStatus&Status=1", 400, "no Uptime"),
        Target("StatusThatIsNoNumber", agent + "UpdateStatus&Status=1x&Uptime=1", 400, "Status is no number"),
        Target("UptimeAboveItsBound", agent + "UpdateStatus&Status=1&Uptime=2147483648", 400, "Uptime is no number"),
        Target("NoList", agent + "RetrieveSoftwarePatch", 400, "no OutOfDateList"),
        HostileRequest{"OtherMethod", "PUT /console/sorvex HTTP/1.1\r\nHost: a\r\n\r\n", 405,
                       "another method than GET"},
        HostileRequest{"Body", WithField("Content-Length: 5"), 400, "a body"},
        HostileRequest{"ChunkedBody", WithField("Transfer-Encoding: chunked"), 400, "a body"},
        HostileRequest{"TwoTokens", WithField("SEC: another"), 400, "several tokens"},
        HostileRequest{"TwoLengths", WithField("Content-Length: 0\r\nContent-Length: 5"), 400, ""},
        HostileRequest{"FieldWithoutColon", WithField("nonsense"), 400, ""},
        HostileRequest{"NoHttp", "\x16\x03\x01 nonsense\r\n\r\n", 400, ""},
        HostileRequest{"Http2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 400, ""},
        HostileRequest{"NothingButLineEnds", "\r\n\r\n", 400, ""},
        Target("LongTarget", "/" + std::string(0x80000, 'x'), 431, "too long"),
        HostileRequest{"LongField", WithField("X: " + std::string(0x80000, 'x')), 431, "too long"}),
    [](const auto& test) { return test.param.name; });

TEST(HttpsBounds, LongestRequestIsRead) {
  const ConfigServer server;
  const std::string begin = "Name=RegisterInstance&Identifier=agent-7&OS+version=1&Sorvex+version=1&AutoCreation.K=";
  const std::size_t rest = HttpsCommandRequest(begin).size();
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Command(begin + std::string(0x80000 - rest, 'x')).status, 200);
  EXPECT_EQ(client.Command(begin + std::string(0x80000 - rest + 1, 'x')).status, 431);
}

class HttpsIdentifier : public testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(HttpsIdentifier, LeadsNowhereButToItsOwnFolder) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", "<Default/>");
  server.Write("AgentConfig.xml", "out of reach");
  HttpsClient client(server.HttpsPort());
  const auto& [identifier, folder] = GetParam();
  const std::string command = "Status=1&Uptime=1&Identifier=" + std::string(identifier) + "&Name=";
  const HttpsAnswer kept = client.Command(command + "UpdateStatus");
  EXPECT_EQ(kept.status, 200);
  if (std::string_view(folder).empty()) {
    EXPECT_THAT(kept.body, HasSubstr("<html>"));
    EXPECT_TRUE(std::filesystem::is_empty(server.Folder() / "agents"));
    return;
  }
  EXPECT_EQ(client.Command(command + "RetrieveConfiguration").body, "<Default/>");
  const std::filesystem::directory_iterator folders(server.Folder() / "agents");
  ASSERT_EQ(std::distance(begin(folders), end(folders)), 1);
  EXPECT_TRUE(server.Has(std::string("agents/") + folder + "/status.txt"));
}

INSTANTIATE_TEST_SUITE_P(Hostile, HttpsIdentifier,
                         testing::Values(std::pair("", ""), std::pair("..", "%2E%2E"),
                                         std::pair("%2e%2E%2f..", "%2E.%2F.%2E"), std::pair("%5C..%5Cb", "%5C..%5Cb"),
                                         std::pair("/etc", "%2Fetc"), std::pair("a%00b", "a%00b"),
                                         std::pair("%2500", "%2500"), std::pair("con", "%63on"),
                                         std::pair("Gr%C3%B6%C3%9Fe", "Gr%C3%B6%C3%9Fe")),
                         [](const auto& test) { return std::to_string(test.index); });

TEST(HttpsBounds, PatchNameLeadsNowhereButToPatches) {
  const ConfigServer server;
  server.Write("secret.tar.gz", "out of reach");
  server.Write("patches/sub/secret.tar.gz", "out of reach");
  HttpsClient client(server.HttpsPort());
  for (const char* const name : {"../secret", "%2E%2E%2Fsecret", "..%5Csecret", "sub/secret", "x64_72_../secret"}) {
    EXPECT_EQ(client.Command(std::string("Name=RetrieveSoftwarePatch&Identifier=a&OutOfDateList=") + name).status, 404);
  }
}

TEST(HttpsBounds, ConnectionThatIsIdleIsEnded) {
  const ConfigServer server({"--idle-timeout", "2"});
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Ask(heartbeat).status, 200);
  EXPECT_EQ(client.ReceiveAll(), "");
  server.WaitForLog("agent-7 ended: waited too long for request");
}

TEST(HttpsBounds, RequestThatComesByteByByteIsEndedInTime) {
  const ConfigServer server({"--request-timeout", "2"});
  HttpsClient client(server.HttpsPort());
  const std::string request = "GET /console/sorvex?" + std::string(4096, 'x');
  for (std::size_t i = 0; i < request.size() && !client.IsEnded(); ++i) {
    client.Send(request.substr(i, 1));
    // Far less than the two seconds of a whole request.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(client.IsEnded());
  server.WaitForLog("ended: waited too long for the rest of a request");
}

TEST(HttpsBounds, AgentThatDoesNotTakeItsPatchIsEnded) {
  const ConfigServer server({"--idle-timeout", "2"});
  // More than all buffers in between hold.
  server.Write("patches/long.tar.gz", std::string(0x4000000, 'x'));
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest("Name=RetrieveSoftwarePatch&Identifier=a&OutOfDateList=long"));
  server.WaitForLog("waited too long for the agent to take the response");
}

TEST(HttpsBounds, FurtherConnectionsAreClosed) {
  const ConfigServer server({"--max-connections", "2"});
  HttpsClient first(server.HttpsPort());
  {
    AdmittedClient second(server);
    EXPECT_FALSE(TlsClient(server.HttpsPort()).IsOpen());
    EXPECT_FALSE(TlsClient(server.Port()).IsOpen());
    server.WaitForLog("closed a connection: there are 2");
    EXPECT_EQ(first.Ask(heartbeat).status, 200);
  }
  // The server notices that the other has disconnected.
  EXPECT_TRUE(WaitUntil([&] { return TlsClient(server.HttpsPort()).IsOpen(); }));
}

TEST(HttpsBounds, FileOfAnySizeIsDelivered) {
  const ConfigServer server;
  std::filesystem::resize_file(server.Write("patches/long.tar.gz", ""), 104857601);
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command("Name=RetrieveSoftwarePatch&Identifier=a&OutOfDateList=long");
  EXPECT_EQ(answer.body.size(), 104857601u);
}

}  // namespace
}  // namespace sorvex::test
