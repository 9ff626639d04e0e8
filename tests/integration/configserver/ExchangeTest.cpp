// The server's answers byte for byte, and what it stores. MD5 texts are those of the md5sum program.
#include "ConfigServerFixture.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationDigest = "dbdedaf012bb556acd82cb106d1a8a78";

TEST(ConfigServer, AnswersTheEstablishmentOf2) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(
      HexBytes("00 00 00 06 | 00 00 00 97 | 00 00 00 03 '2.0' | 00 00 00 03 '2.0' | 00 00 00 07 'agent-7' |"
               "00 00 00 09 '4b1d-99e0' | 00 00 00 00 | 00 00 00 00 6B 00 B7 5D |"
               "00 00 00 30 'CET (UTC + 60) Daylight Savings is not in effect' |"
               "00 00 00 09 | 00 00 00 20 'b4e8035341dace83be801cd99d0eebe9' 'agent key'"));
  EXPECT_EQ(client.Receive(26),
            HexBytes("00 00 00 06 | 00 00 00 12 | 00 00 00 03 '2.0' | 00 00 00 00 | 00 00 00 03 '2.0'"));
  EXPECT_EQ(server.Read("agents/agent-7/key.der"), "agent key");
}

TEST(ConfigServer, AnswersTheEstablishmentOf1) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(
      HexBytes("00 00 00 01 | 00 00 00 26 | 00 00 00 03 '1.0' | 00 00 00 03 '1.0' | 00 00 00 07 'agent-7' |"
               "00 00 00 09 '4b1d-99e0'"));
  EXPECT_EQ(client.Receive(19), HexBytes("00 00 00 01 | 00 00 00 0B | 00 00 00 03 '1.0' | 00 00 00 00"));
}

/// An establishment with this key.
std::string EstablishmentWithKey(std::string_view key, std::string_view digest) {
  return Record(6, "2.0",
                Text("2.0") + Text("agent-7") + Text("4b1d-99e0") + U32(0) + U32(0) + U32(0) + Text("") +
                    U32(static_cast<std::uint32_t>(key.size())) + Text(digest) + std::string(key));
}

TEST(ConfigServer, KeepsTheAgentsNewKey) {
  const ConfigServer server;
  AdmittedClient client(server);
  EXPECT_TRUE(
      client.Ask(EstablishmentWithKey("agent key", "b4e8035341dace83be801cd99d0eebe9"), Establishment2Response()));
  const std::filesystem::path file = server.Folder() / "agents/agent-7/key.der";
  const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  std::filesystem::last_write_time(file, longAgo);
  // The same key, in the other case of digits, is not written again.
  const auto present = std::filesystem::last_write_time(file);
  EXPECT_TRUE(
      client.Ask(EstablishmentWithKey("agent key", "B4E8035341DACE83BE801CD99D0EEBE9"), Establishment2Response()));
  EXPECT_EQ(std::filesystem::last_write_time(file), present);
  EXPECT_TRUE(client.Ask(EstablishmentWithKey("a", "0cc175b9c0f1b6a831c399e269772661"), Establishment2Response()));
  EXPECT_EQ(server.Read("agents/agent-7/key.der"), "a");
}

TEST(ConfigServer, ServesTheAgentOfTheLastEstablishment) {
  const ConfigServer server;
  AdmittedClient client(server);
  EXPECT_TRUE(client.Ask(Establishment2("agent-8"), Establishment2Response()));
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  EXPECT_TRUE(server.Has("agents/agent-8/status.txt"));
  EXPECT_FALSE(server.Has("agents/agent-7"));
}

TEST(ConfigServer, TellsAnAgentWhoseReportCannotBeKeptToComeLater) {
  const ConfigServer server;
  server.Write("agents/agent-7", "not a folder");
  AdmittedClient client(server);
  EXPECT_TRUE(client.Ask(RegisterRequest("2.0"), ResultResponse(2, "2.0", 0x80000002)));
  server.WaitForLog(" agent-7 register: failure 2 too busy\n");
  EXPECT_THAT(server.Log(), HasSubstr(" agent-7 failed: "));
  // The connection continues, and so does the service once the cause is gone.
  std::filesystem::remove(server.Folder() / "agents/agent-7");
  EXPECT_TRUE(client.Ask(RegisterRequest("2.0"), ResultResponse(2, "2.0", 1)));
}

TEST(ConfigServer, KeepsNoKeyWhoseDigestIsWrong) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(EstablishmentWithKey("agent key", "00000000000000000000000000000000"));
  EXPECT_EQ(client.Receive(26), Establishment2Response());
  EXPECT_FALSE(server.Has("agents/agent-7"));
}

TEST(ConfigServer, KeepsNothingOfADiagnosticConnection) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(Record(6, "2.0",
                     Text("2.0") + Text("agent-7") + Text("4b1d-99e0") + U32(1) + U32(0) + U32(0) + Text("") + U32(9) +
                         Text("b4e8035341dace83be801cd99d0eebe9") + "agent key"));
  EXPECT_EQ(client.Receive(26), Establishment2Response());
  EXPECT_FALSE(server.Has("agents/agent-7"));
}

class ConfigServerVersion : public testing::TestWithParam<const char*> {
 protected:
  std::string version = GetParam();
};

TEST_P(ConfigServerVersion, RegistersANewAgentOnceAndKnowsItLater) {
  const ConfigServer server;
  AdmittedClient client(server, version);
  EXPECT_TRUE(client.Ask(RegisterRequest(version), ResultResponse(2, version, 1)));
  EXPECT_TRUE(client.Ask(RegisterRequest(version), ResultResponse(2, version, 2)));
}

TEST_P(ConfigServerVersion, KeepsTheStatus) {
  const ConfigServer server;
  AdmittedClient client(server, version);
  EXPECT_TRUE(client.Ask(StatusRequest(version, 2), ResultResponse(3, version, 0)));
  EXPECT_THAT(server.Read("agents/agent-7/status.txt"), HasSubstr("\nstatus: 2\ntime: 2026-11-20T21:10:53Z\n"));
}

TEST_P(ConfigServerVersion, DeliversTheDefaultConfiguration) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server, version);
  const AdmittedClient::Delivery delivery = client.Fetch(ConfigurationRequest(version));
  EXPECT_EQ(delivery.result, 0u);
  EXPECT_EQ(delivery.data, configuration);
  if (version == "2.0") {
    EXPECT_EQ(delivery.digest, configurationDigest);
  }
}

TEST_P(ConfigServerVersion, DeliversTheAgentsOwnConfiguration) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  server.Write("agents/agent-7/AgentConfig.xml", "<Own/>");
  EXPECT_EQ(AdmittedClient(server, version).Fetch(ConfigurationRequest(version)).data, "<Own/>");
  EXPECT_EQ(AdmittedClient(server, version, "agent-8").Fetch(ConfigurationRequest(version)).data, configuration);
}

TEST_P(ConfigServerVersion, TakesNoFolderForAConfiguration) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  std::filesystem::create_directories(server.Folder() / "agents/agent-7/AgentConfig.xml");
  EXPECT_EQ(AdmittedClient(server, version).Fetch(ConfigurationRequest(version)).data, configuration);
}

TEST_P(ConfigServerVersion, DeliversAChangedConfigurationAtTheNextRequest) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server, version);
  EXPECT_EQ(client.Fetch(ConfigurationRequest(version, configurationDigest)).result, 5u);
  server.Write("default/AgentConfig.xml", "<OtherConfig/>");
  EXPECT_EQ(client.Fetch(ConfigurationRequest(version, configurationDigest)).data, "<OtherConfig/>");
}

TEST_P(ConfigServerVersion, NeedsNoUpdateWhateverTheCaseOfTheDigest) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  AdmittedClient client(server, version);
  const auto delivery = client.Fetch(ConfigurationRequest(version, "DBDEDAF012BB556ACD82CB106D1A8A78"));
  EXPECT_EQ(delivery.result, 5u);
  EXPECT_EQ(delivery.data, "");
}

TEST_P(ConfigServerVersion, NeedsNoUpdateWithoutAConfiguration) {
  const ConfigServer server;
  AdmittedClient client(server, version);
  EXPECT_EQ(client.Fetch(ConfigurationRequest(version)).result, 5u);
  server.Write("default/AgentConfig.xml", "");
  EXPECT_EQ(client.Fetch(ConfigurationRequest(version)).result, 5u);
}

TEST_P(ConfigServerVersion, DisablesUpdatesOfOneAgent) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  server.Write("patches/core.tar.gz", "patch");
  server.Write("agents/agent-7/updates-disabled", "");
  AdmittedClient client(server, version);
  EXPECT_EQ(client.Fetch(ConfigurationRequest(version)).result, 7u);
  EXPECT_EQ(client.Fetch(PatchRequest(version, "x64_72_core")).result, 7u);
  EXPECT_EQ(AdmittedClient(server, version, "agent-8").Fetch(ConfigurationRequest(version)).result, 0u);
}

TEST_P(ConfigServerVersion, DeliversTheFirstPatchThatItHas) {
  const ConfigServer server;
  server.Write("patches/x64_72_b.tar.gz", "patch of b");
  server.Write("patches/c.tar.gz", "patch of c");
  AdmittedClient client(server, version);
  const auto delivery = client.Fetch(PatchRequest(version, "x64_72_a,x64_72_b,x64_72_c"));
  EXPECT_EQ(delivery.result, 0u);
  EXPECT_EQ(delivery.data, "patch of b");
  if (version == "2.0") {
    EXPECT_EQ(delivery.digest, "14ceb410f44c957d43a649ab0806db6b");
  }
  EXPECT_EQ(client.Fetch(PatchRequest(version, "x64_72_a,x64_72_c,x64_72_b")).data, "patch of c");
}

TEST_P(ConfigServerVersion, HasNoUpdateWithoutThePatch) {
  const ConfigServer server;
  server.Write("patches/empty.tar.gz", "");
  AdmittedClient client(server, version);
  EXPECT_EQ(client.Fetch(PatchRequest(version, "x64_72_a")).result, 5u);
  EXPECT_EQ(client.Fetch(PatchRequest(version, "")).result, 5u);
  EXPECT_EQ(client.Fetch(PatchRequest(version, "x64_72_empty")).result, 5u);
}

TEST_P(ConfigServerVersion, DeliversALongPatchWhole) {
  const ConfigServer server;
  // Longer than one block of the digest and of the transport.
  std::string patch;
  for (int i = 0; patch.size() < 0x280000; ++i) patch += std::to_string(i);
  server.Write("patches/long.tar.gz", patch);
  AdmittedClient client(server, version);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(client.Fetch(PatchRequest(version, "x64_72_long")).data == patch);
}

INSTANTIATE_TEST_SUITE_P(Wire, ConfigServerVersion, testing::Values("1.0", "2.0"),
                         [](const testing::TestParamInfo<const char*>& test) {
                           return std::string("Version") + test.param[0];
                         });

TEST(ConfigServer, AnswersWithoutDataAsTheProtocolWantsIt) {
  const ConfigServer server;
  AdmittedClient client1(server, "1.0");
  EXPECT_TRUE(client1.Ask(ConfigurationRequest("1.0"),
                          HexBytes("00 00 00 04 | 00 00 00 0F | 00 00 00 03 '1.0' | 00 00 00 05 | 00 00 00 00")));
  AdmittedClient client2(server);
  EXPECT_TRUE(client2.Ask(PatchRequest("2.0", "x64_72_a"),
                          HexBytes("00 00 00 05 | 00 00 00 13 | 00 00 00 03 '2.0' | 00 00 00 05 |"
                                   "00 00 00 00 | 00 00 00 00")));
}

TEST(ConfigServer, DeliversItsKeyAlsoWithoutAConfiguration) {
  const ConfigServer server;
  AdmittedClient client(server);
  const auto delivery = client.Fetch(ConfigurationRequest("2.0"));
  EXPECT_EQ(delivery.result, 5u);
  // The start of an X.509 SubjectPublicKeyInfo of a key on the curve P-256.
  EXPECT_EQ(delivery.key.substr(0, 27),
            HexBytes("30 59 30 13 06 07 2A 86 48 CE 3D 02 01 06 08 2A 86 48 CE 3D 03 01 07 03 42 00 04"));
  EXPECT_EQ(delivery.key.size(), 91u);
}

TEST(ConfigServer, DeliversAPatchThatWasReplaced) {
  const ConfigServer server;
  const std::filesystem::path path = server.Write("patches/core.tar.gz", "patch of b");
  const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  std::filesystem::last_write_time(path, longAgo);
  AdmittedClient client(server);
  const std::string request = PatchRequest("2.0", "x64_72_core");
  EXPECT_EQ(client.Fetch(request).digest, "14ceb410f44c957d43a649ab0806db6b");
  EXPECT_EQ(client.Fetch(request).digest, "14ceb410f44c957d43a649ab0806db6b");
  server.Write("patches/core.tar.gz", "patch of c");
  const auto delivery = client.Fetch(request);
  EXPECT_EQ(delivery.data, "patch of c");
  EXPECT_EQ(delivery.digest, "3c60789150b8ddf4bb7b71ae1b9aa21e");
}

/// Gives a file these bytes without changing what its folder says about it.
void Overwrite(const ConfigServer& server, const std::string& file, std::string_view content,
               std::filesystem::file_time_type time) {
  std::filesystem::last_write_time(server.Write(file, content), time);
}

TEST(ConfigServer, ReadsAnUnchangedPatchForItsDigestOnce) {
  const ConfigServer server;
  const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  AdmittedClient client(server);
  Overwrite(server, "patches/core.tar.gz", "patch of b", longAgo);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_core")).digest, "14ceb410f44c957d43a649ab0806db6b");
  Overwrite(server, "patches/core.tar.gz", "patch of c", longAgo);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_core")).digest, "14ceb410f44c957d43a649ab0806db6b");
  Overwrite(server, "patches/core.tar.gz", "abc", longAgo);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_core")).digest, "900150983cd24fb0d6963f7d28e17f72");
}

TEST(ConfigServer, ReadsAPatchAnewThatMayHaveChangedWithinItsClocksTick) {
  const ConfigServer server;
  // So that it is new however long the test takes.
  const auto time = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
  AdmittedClient client(server);
  Overwrite(server, "patches/core.tar.gz", "patch of b", time);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_core")).digest, "14ceb410f44c957d43a649ab0806db6b");
  Overwrite(server, "patches/core.tar.gz", "patch of c", time);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_core")).digest, "3c60789150b8ddf4bb7b71ae1b9aa21e");
}

TEST(ConfigServer, KeepsTheRegistrationWithItsParameters) {
  const ConfigServer server;
  AdmittedClient client(server);
  EXPECT_TRUE(
      client.Ask(RegisterRequest("2.0", "&AutoCreation.Enabled=true&AutoCreation.Name=a&b=c\nd\\\x7F\xC2\x9B\xC3\x9F"),
                 ResultResponse(2, "2.0", 1)));
  EXPECT_THAT(server.Read("agents/agent-7/registration.txt"),
              HasSubstr("\nos-version: Debian 12\nagent-version: 7.2.5\n"
                        "auto-creation: AutoCreation.Enabled=true\nauto-creation: "
                        "AutoCreation.Name=a&b=c\\x0Ad\\x5C\\x7F\\xC2\\x9B\xC3\x9F\n"));
}

TEST(ConfigServer, RefusesATokenThatIsNotAccepted) {
  const ConfigServer server;
  server.Write("tokens.txt", "first-token\r\n\n  second-token  \n");
  for (const char* const token : {"first-token", "second-token"}) {
    TlsClient client(server.Port());
    client.Send(Establishment2("agent-7", token));
    EXPECT_EQ(client.Receive(26), Establishment2Response()) << token;
  }
  for (const char* const token : {"", "first-toke", "first-token\r", "third-token", "FIRST-TOKEN"}) {
    TlsClient client2(server.Port());
    client2.Send(Establishment2("agent-7", token));
    EXPECT_EQ(client2.ReceiveAll(), Establishment2Response(0x80000005)) << token;
    TlsClient client1(server.Port());
    client1.Send(Establishment1("agent-7", token));
    EXPECT_EQ(client1.ReceiveAll(), ResultResponse(1, "1.0", 0x80000005)) << token;
  }
  server.WaitForLog("refused");
  EXPECT_THAT(server.Log(), Not(HasSubstr("-token")));
}

TEST(ConfigServer, TakesChangedTokensAtTheNextConnection) {
  const ConfigServer server;
  AdmittedClient first(server);
  server.Write("tokens.txt", "other\n");
  TlsClient second(server.Port());
  second.Send(Establishment2());
  EXPECT_EQ(second.ReceiveAll(), Establishment2Response(0x80000005));
  server.Write("tokens.txt", " \n");
  AdmittedClient third(server);
}

TEST(ConfigServer, RefusesRequestsBeforeTheEstablishment) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", configuration);
  TlsClient client1(server.Port());
  client1.Send(ConfigurationRequest("1.0"));
  EXPECT_EQ(client1.ReceiveAll(), Record(4, "1.0", U32(0x80000005) + U32(0)));
  TlsClient client2(server.Port());
  client2.Send(ConfigurationRequest("2.0"));
  EXPECT_EQ(client2.ReceiveAll(), Record(4, "2.0", U32(0x80000005) + U32(0) + U32(0) + U32(0) + U32(0)));
}

TEST(ConfigServer, TellsFurtherAgentsToComeLater) {
  const ConfigServer server({"--max-agents", "1"});
  {
    AdmittedClient held(server);
    TlsClient second(server.Port());
    second.Send(Establishment2("agent-8"));
    EXPECT_EQ(second.ReceiveAll(), Establishment2Response(0x80000002));
    // The open connection is still served after a second establishment.
    EXPECT_TRUE(held.Ask(Establishment2(), Establishment2Response()));
    EXPECT_TRUE(held.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  }
  // The server notices that the other has disconnected.
  std::string response;
  for (int attempt = 0; attempt < 500 && response != Establishment2Response(); ++attempt) {
    TlsClient next(server.Port());
    next.Send(Establishment2("agent-8"));
    response = next.Receive(26);
  }
  EXPECT_EQ(response, Establishment2Response());
}

TEST(ConfigServer, AnswersAnUnknownTypeAndEndsTheConnection) {
  const ConfigServer server;
  AdmittedClient client(server, "1.0");
  client.Send(Record(7, "1.0", std::string(100000, 'x')));
  EXPECT_EQ(client.ReceiveAll(), ResultResponse(7, "1.0", 0x80000006));
  // Closing a connection with unread data may lose the response.
  EXPECT_TRUE(client.HasFarewell());
}

TEST(ConfigServer, ReadsARequestThatComesByteByByte) {
  const ConfigServer server;
  TlsClient client(server.Port());
  for (const char byte : Establishment2()) client.Send({&byte, 1});
  EXPECT_EQ(client.Receive(26), Establishment2Response());
}

TEST(ConfigServer, AnswersRequestsThatCameTogetherInTheirOrder) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(Establishment2() + RegisterRequest("2.0") + StatusRequest("2.0"));
  const std::string expected = Establishment2Response() + ResultResponse(2, "2.0", 1) + ResultResponse(3, "2.0", 0);
  EXPECT_EQ(client.Receive(expected.size()), expected);
}

TEST(ConfigServer, ReadsWhatTheRecordSizeDoesNotTell) {
  const ConfigServer server;
  TlsClient client(server.Port());
  std::string request = Establishment2();
  request.replace(4, 4, HexBytes("FF FF FF FF"));
  client.Send(request);
  EXPECT_EQ(client.Receive(26), Establishment2Response());
}

TEST(ConfigServer, OfVersion1AnswersTheTypeAloneAndGoesOn) {
  const ConfigServer server({"--wire-version", "1.0"});
  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.Receive(4), HexBytes("00 00 00 01"));
  client.Send(Establishment1());
  EXPECT_EQ(client.Receive(19), ResultResponse(1, "1.0", 0));
  client.Send(RegisterRequest("1.0"));
  EXPECT_EQ(client.Receive(19), ResultResponse(2, "1.0", 1));
}

TEST(ConfigServer, WritesOneLineForEachExchange) {
  const ConfigServer server;
  server.Write("patches/core.tar.gz", "patch");
  AdmittedClient client(server);
  client.Fetch(PatchRequest("2.0", "x64_72_core"));
  client.Fetch(PatchRequest("2.0", std::string(201, 'n')));
  client.Fetch(PatchRequest("2.0", "x64_72_a\nb"));
  server.WaitForLog("a\\x0Ab");
  const std::string log = server.Log();
  EXPECT_THAT(log, HasSubstr(" agent-7 connect: 0 success\n"));
  EXPECT_THAT(log, HasSubstr(" agent-7 patch: 0 success, core.tar.gz, 5 bytes\n"));
  EXPECT_THAT(log, HasSubstr(" agent-7 patch: 5 no update needed, x64_72_a\\x0Ab\n"));
  EXPECT_THAT(log, HasSubstr(" agent-7 patch: 5 no update needed, " + std::string(200, 'n') + "\n"));
}

}  // namespace
}  // namespace sorvex::test
