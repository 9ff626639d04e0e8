// The server's answers to the commands over HTTPS byte for byte, and what it stores.
#include "ConfigServerFixture.h"
#include "HttpsClient.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationDigest = "dbdedaf012bb556acd82cb106d1a8a78";

constexpr const char* heartbeat = "Name=PostHeartbeat&Identifier=agent-7";
constexpr const char* fingerprint = "Name=GetConfigurationFingerprint&Identifier=agent-7";
constexpr const char* retrieval = "Name=RetrieveConfiguration&Identifier=agent-7";
const std::string patchOf = "Name=RetrieveSoftwarePatch&Identifier=agent-7&OutOfDateList=";
const std::string registration =
    "Name=RegisterInstance&Identifier=agent-7&OS+version=Debian%20GNU%2FLinux%2012&Sorvex+version=7.2.5";

TEST(HttpsServer, AnswersARegistrationAndKeepsIt) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command(registration + "&AutoCreation.Foo=a%20b&AutoCreation.Foo=%26%3D%0A");
  EXPECT_EQ(answer.head, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nCache-Control: no-store\r\n\r\n");
  EXPECT_THAT(server.Read("agents/agent-7/registration.txt"),
              HasSubstr("\nos-version: Debian GNU/Linux 12\nagent-version: 7.2.5\n"
                        "auto-creation: AutoCreation.Foo=a b\nauto-creation: AutoCreation.Foo=&=\\x0A\n"));
  EXPECT_EQ(client.Command(registration).status, 200);
  EXPECT_THAT(server.Log(), HasSubstr(" agent-7 register: 200 new agent\n"));
  server.WaitForLog(" agent-7 register: 200 existing agent\n");
}

TEST(HttpsServer, AnswersAHeartbeatAndKeepsNothing) {
  const ConfigServer server;
  const HttpsAnswer answer = HttpsClient(server.HttpsPort()).Command(heartbeat);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, "");
  EXPECT_FALSE(server.Has("agents/agent-7"));
}

TEST(HttpsServer, KeepsTheStatus) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Command("Name=UpdateStatus&Identifier=agent-7&Status=2&Uptime=99").status, 200);
  EXPECT_THAT(server.Read("agents/agent-7/status.txt"), HasSubstr("\nstatus: 2\nuptime: 99\n"));
  EXPECT_EQ(client.Command("Name=UpdateStatus&Identifier=agent-7&Status=-1&Uptime=-2147483648").status, 200);
  EXPECT_THAT(server.Read("agents/agent-7/status.txt"), HasSubstr("\nstatus: -1\nuptime: -2147483648\n"));
}

TEST(HttpsServer, DeliversTheFingerprintOfTheConfiguration) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  const HttpsAnswer answer = HttpsClient(server.HttpsPort()).Command(fingerprint);
  EXPECT_EQ(answer.head,
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: 32\r\n"
            "Cache-Control: no-store\r\n\r\n");
  EXPECT_EQ(answer.body, configurationDigest);
}

TEST(HttpsServer, DeliversTheAgentsOwnConfigurationOrTheDefaultOne) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  server.Write("agents/agent-8/AgentConfig.xml", "<Own/>");
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command(retrieval);
  EXPECT_EQ(answer.Field("Content-Type"), "application/xml");
  EXPECT_EQ(answer.body, configuration);
  EXPECT_EQ(client.Command("Name=RetrieveConfiguration&Identifier=agent-8").body, "<Own/>");
}

TEST(HttpsServer, DeliversTheFirstPatchThatItHas) {
  const ConfigServer server;
  server.Write("patches/x64_72_b.tar.gz", "patch of b");
  server.Write("patches/c.tar.gz", "patch of c");
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command(patchOf + "x64_72_a%2Cx64_72_b%2Cx64_72_c");
  EXPECT_EQ(answer.Field("Content-Type"), "application/gzip");
  EXPECT_EQ(answer.body, "patch of b");
  EXPECT_EQ(client.Command(patchOf + "x64_72_c").body, "patch of c");
  EXPECT_EQ(client.Command(patchOf + "X64_72_C").body, "patch of c");
  server.WaitForLog(" agent-7 patch: 200 x64_72_b.tar.gz, 10 bytes\n");
}

TEST(HttpsServer, DeliversALongPatchWhole) {
  const ConfigServer server;
  std::string patch;
  for (int i = 0; patch.size() < 0x280000; ++i) patch += std::to_string(i);
  server.Write("patches/long.tar.gz", patch);
  HttpsClient client(server.HttpsPort());
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client.Command(patchOf + "x64_72_long").body == patch);
}

TEST(HttpsServer, HasNothingToDeliverWithoutAFile) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  server.Write("patches/empty.tar.gz", "");
  for (const std::string& query :
       {std::string(fingerprint), std::string(retrieval), patchOf, patchOf + "x64_72_a", patchOf + "x64_72_empty"}) {
    const HttpsAnswer answer = client.Command(query);
    EXPECT_EQ(answer.status, 404) << query;
    EXPECT_EQ(answer.body, "");
  }
  server.Write("default/AgentConfig.xml", "");
  EXPECT_EQ(client.Command(retrieval).status, 404);
}

TEST(HttpsServer, DisablesUpdatesOfOneAgent) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  server.Write("patches/core.tar.gz", "patch");
  server.Write("agents/agent-7/updates-disabled", "");
  HttpsClient client(server.HttpsPort());
  for (const std::string& query : {std::string(fingerprint), std::string(retrieval), patchOf + "x64_72_core"}) {
    const HttpsAnswer answer = client.Command(query);
    EXPECT_EQ(answer.head, "HTTP/1.1 204 No Content\r\nCache-Control: no-store\r\n\r\n") << query;
  }
  EXPECT_EQ(client.Command(heartbeat).status, 200);
  EXPECT_EQ(client.Command("Name=RetrieveConfiguration&Identifier=agent-8").body, configuration);
}

TEST(HttpsServer, AnswersATokenThatIsNotAcceptedWithAPage) {
  const ConfigServer server;
  server.Write("tokens.txt", "first-token\r\n\n  second-token  \n");
  server.Write("default/AgentConfig.xml", configuration);
  HttpsClient client(server.HttpsPort());
  for (const char* const token : {"first-token", "second-token"}) {
    EXPECT_EQ(client.Ask(HttpsCommandRequest(retrieval, token)).body, configuration) << token;
  }
  for (const char* const token : {"", "first-toke", "third-token", "FIRST-TOKEN"}) {
    for (const std::string& query : {std::string(heartbeat), registration, std::string(retrieval)}) {
      const HttpsAnswer answer = client.Ask(HttpsCommandRequest(query, token));
      EXPECT_EQ(answer.status, 200);
      EXPECT_EQ(answer.Field("Content-Type"), "text/html; charset=utf-8");
      EXPECT_THAT(answer.body, HasSubstr("<html>")) << token;
    }
  }
  EXPECT_FALSE(server.Has("agents/agent-7"));
  server.WaitForLog(" register: 200 refused\n");
  EXPECT_THAT(server.Log(), Not(HasSubstr("-token")));
}

TEST(HttpsServer, AcceptsNoRequestWithoutATokenUnlessThereIsNone) {
  const ConfigServer server;
  const std::string request = std::string("GET /console/sorvex?") + heartbeat + " HTTP/1.1\r\nHost: a\r\n\r\n";
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Ask(request).body, "");
  server.Write("tokens.txt", "first-token\n");
  EXPECT_THAT(client.Ask(request).body, HasSubstr("<html>"));
}

TEST(HttpsServer, TellsFurtherAgentsToComeLater) {
  const ConfigServer server({"--max-agents", "1"});
  HttpsClient held(server.HttpsPort());
  EXPECT_EQ(held.Command(heartbeat).status, 200);
  EXPECT_EQ(HttpsClient(server.HttpsPort()).Command(heartbeat).status, 503);
  EXPECT_EQ(held.Command(heartbeat).status, 200);
}

TEST(HttpsServer, KeepsTheConnectionUnlessAskedToEndIt) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.Command(heartbeat).Field("Connection"), "(absent)");
  const HttpsAnswer last = client.Ask(HttpsCommandRequest(heartbeat, httpsToken, "Connection: close\r\n"));
  EXPECT_EQ(last.Field("Connection"), "close");
  EXPECT_EQ(client.ReceiveAll(), "");
  EXPECT_TRUE(client.HasFarewell());
}

TEST(HttpsServer, EndsTheConnectionOfHttp10) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Ask(std::string("GET /console/sorvex?") + heartbeat + " HTTP/1.0\r\n\r\n").status, 200);
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(HttpsServer, AnswersRequestsThatCameTogetherInTheirOrder) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  server.Write("patches/core.tar.gz", std::string(100000, 'x'));
  HttpsClient client(server.HttpsPort());
  client.Send(HttpsCommandRequest(patchOf + "x64_72_core") + HttpsCommandRequest(fingerprint) +
              HttpsCommandRequest(heartbeat));
  EXPECT_EQ(client.ReceiveAnswer().body.size(), 100000u);
  EXPECT_EQ(client.ReceiveAnswer().body, configurationDigest);
  EXPECT_EQ(client.ReceiveAnswer().body, "");
}

TEST(HttpsServer, ReadsARequestThatComesByteByByte) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  for (const char byte : HttpsCommandRequest(heartbeat)) client.Send({&byte, 1});
  EXPECT_EQ(client.ReceiveAnswer().status, 200);
}

TEST(HttpsServer, DecodesTheIdentifierAsAFormDoes) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  for (const char* const identifier : {"a+b", "a%20b"}) {
    EXPECT_EQ(client.Command(std::string("Name=UpdateStatus&Status=1&Uptime=1&Identifier=") + identifier).status, 200);
    EXPECT_TRUE(server.Has("agents/a%20b/status.txt"));
    std::filesystem::remove_all(server.Folder() / "agents/a%20b");
  }
}

TEST(HttpsServer, AnswersWithAnErrorWhenAReportCannotBeKept) {
  const ConfigServer server;
  server.Write("agents/agent-7", "not a folder");
  HttpsClient client(server.HttpsPort());
  const HttpsAnswer answer = client.Command(registration);
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(answer.body, "");
  server.WaitForLog(" agent-7 register: 500 failed\n");
  EXPECT_THAT(server.Log(), HasSubstr(" agent-7 failed: "));
  EXPECT_EQ(client.Command(heartbeat).status, 200);
}

TEST(HttpsServer, AndTheWireProtocolServeOneFolder) {
  const ConfigServer server;
  HttpsClient client(server.HttpsPort());
  EXPECT_EQ(client.Command(registration).status, 200);
  AdmittedClient wire(server);
  EXPECT_TRUE(wire.Ask(RegisterRequest("2.0"), ResultResponse(2, "2.0", 2)));
}

}  // namespace
}  // namespace sorvex::test
