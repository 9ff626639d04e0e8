// The server's misbehaviour over HTTPS on request.
#include "ConfigServerFixture.h"
#include "HttpsClient.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

const std::string heartbeat = "Name=PostHeartbeat&Identifier=agent-7";
const std::string retrieval = "Name=RetrieveConfiguration&Identifier=agent-7";
const std::string registration = "Name=RegisterInstance&Identifier=agent-7&OS+version=12&Sorvex+version=7";

/// A server with this fault and a configuration.
class FaultyServer : public ConfigServer {
 public:
  explicit FaultyServer(const std::string& fault, const std::vector<std::string>& further = {})
      : ConfigServer([&] {
          std::vector<std::string> arguments{"--fault", fault};
          arguments.insert(arguments.end(), further.begin(), further.end());
          return arguments;
        }()) {
    Write("default/AgentConfig.xml", "<AgentConfig/>");
  }
};

TEST(HttpsFault, LateAnswersLater) {
  const FaultyServer server("late:1", {"--fault-on", "heartbeat"});
  HttpsClient client(server.HttpsPort());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Command(heartbeat).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
}

TEST(HttpsFault, CutSendsSoManyBytes) {
  const FaultyServer server("cut:20");
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest(heartbeat));
  EXPECT_EQ(client.ReceiveAll(), "HTTP/1.1 200 OK\r\nCon");
}

TEST(HttpsFault, StallSaysNothingMore) {
  const FaultyServer server("stall:20", {"--idle-timeout", "1"});
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest(retrieval));
  EXPECT_EQ(client.Receive(20), "HTTP/1.1 200 OK\r\nCon");
  server.WaitForLog("configuration: stalled after 20 bytes");
  // The connection stays, longer than an idle one would.
  HttpsClient idle(server.HttpsPort());
  EXPECT_EQ(idle.ReceiveAll(), "");
  EXPECT_THAT(server.Log(), testing::Not(HasSubstr("to take the response")));
}

TEST(HttpsFault, ByteByByteSendsTheWholeAnswer) {
  const FaultyServer server("byte-by-byte:1");
  EXPECT_EQ(HttpsClient(server.HttpsPort()).Command(retrieval).body, "<AgentConfig/>");
}

TEST(HttpsFault, SilentHandshakeSaysNothing) {
  const FaultyServer server("silent-handshake", {"--fault-times", "1"});
  const TlsClient silent(server.HttpsPort(), TlsClient::Start::Connect);
  server.WaitForLog("gets no handshake");
  EXPECT_EQ(HttpsClient(server.HttpsPort()).Command(heartbeat).status, 200);
}

TEST(HttpsFault, CloseAfterRequestGivesNoAnswer) {
  const FaultyServer server("close-after-request");
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest(heartbeat));
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpsFault, HtmlIsThePageOfARefusal) {
  const FaultyServer server("html");
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command(registration);
  EXPECT_EQ(answer.status, 200);
  EXPECT_THAT(answer.body, HasSubstr("<html>"));
  EXPECT_FALSE(server.Has("agents/agent-7"));
}

TEST(HttpsFault, StatusIsTheOneThatIsWanted) {
  for (const int status : {204, 404, 500}) {
    const FaultyServer server("status:" + std::to_string(status));
    HttpsClient client(server.HttpsPort());
    for (int i = 0; i < 2; ++i) {
      const HttpsAnswer answer = client.Command(retrieval);
      EXPECT_EQ(answer.status, status);
      EXPECT_EQ(answer.body, status == 204 ? "" : "as asked for\n");
    }
  }
}

TEST(HttpsFault, RedirectLeadsElsewhere) {
  const FaultyServer server("redirect");
  const HttpsAnswer answer = HttpsClient(server.HttpsPort()).Command(heartbeat);
  EXPECT_EQ(answer.status, 302);
  EXPECT_EQ(answer.Field("Location"), "/elsewhere");
}

TEST(HttpsFault, HeaderWithoutColonIsALineOfTheHead) {
  const FaultyServer server("header-without-colon");
  const HttpsAnswer answer = HttpsClient(server.HttpsPort()).Command(retrieval);
  EXPECT_THAT(answer.head, HasSubstr("\r\nA line without one\r\n"));
  EXPECT_EQ(answer.body, "<AgentConfig/>");
}

TEST(HttpsFault, IsForgottenBeforeARequestThatIsRefused) {
  const FaultyServer server("header-without-colon", {"--fault-times", "1"});
  HttpsClient client(server.HttpsPort());
  EXPECT_THAT(client.Command(heartbeat).head, HasSubstr("without one"));
  EXPECT_THAT(client.Command("Name=Shutdown").head, testing::Not(HasSubstr("without one")));
}

TEST(HttpsFault, HugeHeaderHasSoManyBytes) {
  const FaultyServer server("huge-header:200");
  const HttpsAnswer answer = HttpsClient(server.HttpsPort()).Command(retrieval);
  EXPECT_EQ(answer.Field("X-Filler"), std::string(200, 'x'));
  EXPECT_EQ(answer.body, "<AgentConfig/>");
}

TEST(HttpsFault, EndlessBodyGoesOn) {
  const FaultyServer server("endless-body");
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest(retrieval));
  const HttpsAnswer answer = client.ReceiveAnswer();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.Field("Content-Length"), "(absent)");
  EXPECT_EQ(client.Receive(0x400000), std::string(0x400000, 'x'));
}

TEST(HttpsFault, HappensInTheChosenExchangeAndOnlySoManyTimes) {
  const FaultyServer server("status:500", {"--fault-on", "fingerprint", "--fault-times", "2"});
  HttpsClient client(server.HttpsPort());
  const std::string fingerprint = "Name=GetConfigurationFingerprint&Identifier=agent-7";
  EXPECT_EQ(client.Command(heartbeat).status, 200);
  EXPECT_EQ(client.Command(fingerprint).status, 500);
  EXPECT_EQ(client.Command(fingerprint).status, 500);
  EXPECT_EQ(client.Command(fingerprint).status, 200);
}

TEST(HttpsFault, OfOneProtocolLeavesTheOtherAlone) {
  const FaultyServer ofHttps("html", {"--fault-times", "1"});
  AdmittedClient wire(ofHttps);
  EXPECT_TRUE(wire.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  EXPECT_THAT(HttpsClient(ofHttps.HttpsPort()).Command(heartbeat).body, HasSubstr("<html>"));

  const FaultyServer ofWire("wrong-type", {"--fault-on", "status", "--fault-times", "1"});
  HttpsClient client(ofWire.HttpsPort());
  EXPECT_EQ(client.Command("Name=UpdateStatus&Identifier=a&Status=1&Uptime=1").status, 200);
  AdmittedClient other(ofWire);
  EXPECT_TRUE(other.Ask(StatusRequest("2.0"), ResultResponse(99, "2.0", 0)));
}

}  // namespace
}  // namespace sorvex::test
