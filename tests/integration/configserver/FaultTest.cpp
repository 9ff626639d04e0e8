// The server's misbehaviour on request.
#include "ConfigServerFixture.h"

namespace sorvex::test {
namespace {

constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationDigest = "dbdedaf012bb556acd82cb106d1a8a78";

TEST(ConfigServerFault, LateAnswersLater) {
  const ConfigServer server({"--fault", "late:1", "--fault-on", "status"});
  AdmittedClient client(server);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
}

TEST(ConfigServerFault, CutSendsSoManyBytes) {
  const ConfigServer server({"--fault", "cut:17"});
  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.ReceiveAll(), Establishment2Response().substr(0, 17));
}

TEST(ConfigServerFault, CutInsideAPatch) {
  const ConfigServer server({"--fault", "cut:100000"});
  const std::string patch(200000, 'x');
  server.Write("patches/core.tar.gz", patch);
  AdmittedClient client(server, "1.0");
  client.Send(PatchRequest("1.0", "x64_72_core"));
  EXPECT_EQ(client.ReceiveAll(), Record(5, "1.0", U32(0) + Text(patch)).substr(0, 100000));
}

TEST(ConfigServerFault, CutOfNothingClosesWithoutAnAnswer) {
  const ConfigServer server({"--fault", "cut:0"});
  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(ConfigServerFault, ByteByByteSendsTheWholeAnswer) {
  const ConfigServer server({"--fault", "byte-by-byte:1"});
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server);
  EXPECT_EQ(client.Fetch(ConfigurationRequest("2.0")).data, configuration);
}

TEST(ConfigServerFault, WrongTypeIsTheOnlyDifference) {
  const ConfigServer server({"--fault", "wrong-type:4711", "--fault-on", "register"});
  AdmittedClient client(server);
  EXPECT_TRUE(client.Ask(RegisterRequest("2.0"), ResultResponse(4711, "2.0", 1)));
}

TEST(ConfigServerFault, OversizedStringIsAnnounced) {
  const ConfigServer server({"--fault", "oversized-string"});
  TlsClient client(server.Port());
  client.Send(Establishment1());
  EXPECT_EQ(client.Receive(19), HexBytes("00 00 00 01 | 00 00 00 0B | 00 10 00 01 '1.0' | 00 00 00 00"));
}

TEST(ConfigServerFault, OversizedBinaryIsAnnounced) {
  const ConfigServer server({"--fault", "oversized-binary"});
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server, "1.0");
  client.Send(ConfigurationRequest("1.0"));
  EXPECT_EQ(client.Receive(37),
            HexBytes("00 00 00 04 | 00 00 00 1D | 00 00 00 03 '1.0' | 00 00 00 00 | 06 40 00 01 '<AgentConfig/>'"));
}

TEST(ConfigServerFault, WrongDigestIsThatOfOtherData) {
  const ConfigServer server({"--fault", "wrong-digest"});
  server.Write("default/AgentConfig.xml", configuration);
  const auto delivery = AdmittedClient(server).Fetch(ConfigurationRequest("2.0"));
  EXPECT_EQ(delivery.data, configuration);
  EXPECT_EQ(delivery.digest, "00000000000000000000000000000000");
}

TEST(ConfigServerFault, SilentHandshakeSaysNothing) {
  const ConfigServer server({"--fault", "silent-handshake", "--fault-times", "1"});
  const TlsClient silent(server.Port(), TlsClient::Start::Connect);
  server.WaitForLog("gets no handshake");
  AdmittedClient next(server);
}

TEST(ConfigServerFault, CloseAfterRequestGivesNoAnswer) {
  const ConfigServer server({"--fault", "close-after-request", "--fault-on", "configuration"});
  AdmittedClient client(server);
  client.Send(ConfigurationRequest("2.0"));
  EXPECT_EQ(client.ReceiveAll(), "");
}

TEST(ConfigServerFault, Speaks1WithAWholeAnswer) {
  const ConfigServer server({"--fault", "speaks-1.0"});
  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.Receive(19), ResultResponse(1, "1.0", 0));
  AdmittedClient next(server, "1.0");
}

TEST(ConfigServerFault, Speaks1WithTheTypeAlone) {
  const ConfigServer server({"--fault", "speaks-1.0-type-only"});
  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.Receive(4), U32(1));
  client.Send(Establishment1());
  EXPECT_EQ(client.Receive(19), ResultResponse(1, "1.0", 0));
}

TEST(ConfigServerFault, HappensOnlySoManyTimes) {
  const ConfigServer server({"--fault", "wrong-digest", "--fault-times", "2"});
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server);
  for (int i = 0; i < 2; ++i) EXPECT_NE(client.Fetch(ConfigurationRequest("2.0")).digest, configurationDigest);
  EXPECT_EQ(client.Fetch(ConfigurationRequest("2.0")).digest, configurationDigest);
}

}  // namespace
}  // namespace sorvex::test
