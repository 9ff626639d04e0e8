// What the server does with malicious or incomplete clients.
#include "ConfigServerFixture.h"

#include <map>
#include <memory>

namespace sorvex::test {
namespace {

using testing::HasSubstr;

/// The test's files and folders with their contents, except those in agents' folders.
std::map<std::string, std::string> FilesOutsideOfAgents(const ConfigServer& server) {
  std::map<std::string, std::string> files;
  std::filesystem::recursive_directory_iterator position(server.Folder().parent_path());
  for (; position != std::filesystem::recursive_directory_iterator(); ++position) {
    const std::string name = position->path().lexically_relative(server.Folder()).generic_string();
    // The server is working there, and a name may be too long for a program to look up.
    if (name == "agents") position.disable_recursion_pending();
    files[name] = position->is_directory() ? "" : TemporaryDirectory::Read(position->path());
  }
  return files;
}

std::vector<std::string> AgentFolders(const ConfigServer& server) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(server.Folder() / "agents")) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

struct Identifier {
  std::string text;
  std::string folder;  ///< empty: refused
};

void PrintTo(const Identifier& identifier, std::ostream* out) { *out << identifier.folder; }

class ConfigServerIdentifier : public testing::TestWithParam<Identifier> {};

TEST_P(ConfigServerIdentifier, LeadsNowhereButToItsOwnFolder) {
  const ConfigServer server;
  server.Write("default/AgentConfig.xml", "<Default/>");
  server.Write("AgentConfig.xml", "out of reach");
  server.Write("updates-disabled", "");
  const auto before = FilesOutsideOfAgents(server);

  TlsClient client(server.Port());
  client.Send(Establishment1(GetParam().text));
  if (GetParam().folder.empty()) {
    EXPECT_EQ(client.ReceiveAll(), ResultResponse(1, "1.0", 0x80000005));
    EXPECT_THAT(AgentFolders(server), testing::IsEmpty());
  } else {
    EXPECT_EQ(client.Receive(19), ResultResponse(1, "1.0", 0));
    client.Send(RegisterRequest("1.0") + ConfigurationRequest("1.0"));
    EXPECT_EQ(client.Receive(19 + 23 + 10),
              ResultResponse(2, "1.0", 1) + Record(4, "1.0", U32(0) + Text("<Default/>")));
    EXPECT_THAT(AgentFolders(server), testing::ElementsAre(GetParam().folder));
  }
  EXPECT_EQ(FilesOutsideOfAgents(server), before);
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, ConfigServerIdentifier,
    testing::Values(Identifier{"", ""}, Identifier{"..", "%2E%2E"}, Identifier{".", "%2E"},
                    Identifier{"../../escape", "%2E.%2F..%2Fescape"}, Identifier{"/etc", "%2Fetc"},
                    Identifier{"a\\..\\b", "a%5C..%5Cb"}, Identifier{"C:x", "C%3Ax"}, Identifier{"a.", "a%2E"},
                    Identifier{"con", "%63on"}, Identifier{"LPT1.txt", "%4CPT1.txt"}, Identifier{"com0", "%63om0"},
                    Identifier{"PRN", "%50RN"}, Identifier{"aux.x", "%61ux.x"}, Identifier{"nul", "%6Eul"},
                    Identifier{"comx", "comx"}, Identifier{"com10", "com10"}, Identifier{"a/b", "a%2Fb"},
                    Identifier{std::string("a\0b", 3), "a%00b"}, Identifier{"100%", "100%25"},
                    Identifier{"Gr\xC3\xB6\xC3\x9F"
                               "e",
                               "Gr%C3%B6%C3%9Fe"},
                    Identifier{std::string(128, 'a'), std::string(128, 'a')}, Identifier{std::string(129, 'a'), ""}),
    [](const auto& test) { return std::to_string(test.index); });

class ConfigServerPatchName : public testing::TestWithParam<const char*> {};

TEST_P(ConfigServerPatchName, LeadsNowhereButToPatches) {
  const ConfigServer server;
  server.Write("secret.tar.gz", "out of reach");
  server.Write("patches/sub/secret.tar.gz", "out of reach");
  server.Write("patches/.secret.tar.gz", "out of reach");
  std::filesystem::create_directory(server.Folder() / "patches/folder.tar.gz");
  AdmittedClient client(server);
  std::string name = GetParam();
  if (name == "absolute") name = (server.Folder() / "secret").string();
  for (const std::string& prefix : {std::string(), std::string("x64_72_")}) {
    const auto delivery = client.Fetch(PatchRequest("2.0", prefix + name));
    EXPECT_EQ(delivery.result, 5u);
    EXPECT_EQ(delivery.data, "");
  }
}

INSTANTIATE_TEST_SUITE_P(Hostile, ConfigServerPatchName,
                         testing::Values("../secret", "..\\secret", "sub/secret", "absolute", ".secret", "folder",
                                         "./../secret", "../patches/sub/secret"),
                         [](const auto& test) { return std::to_string(test.index); });

TEST(ConfigServerBounds, LengthAboveItsBoundEndsTheConnectionAtOnce) {
  const ConfigServer server;
  AdmittedClient client(server);
  client.Send(U32(2) + U32(0) + Text("2.0") + HexBytes("FF FF FF FF"));
  EXPECT_EQ(client.ReceiveAll(), "");
  server.WaitForLog("agent-7 ended: a length in a request of type 2 is above its bound");
}

TEST(ConfigServerBounds, ConnectionThatIsIdleIsEnded) {
  const ConfigServer server({"--idle-timeout", "2"});
  AdmittedClient client(server);
  EXPECT_EQ(client.ReceiveAll(), "");
  server.WaitForLog("agent-7 ended: waited too long for request");
}

TEST(ConfigServerBounds, ConnectionWithoutARequestIsEnded) {
  const ConfigServer server({"--idle-timeout", "2", "--request-timeout", "600"});
  TlsClient client(server.Port());
  EXPECT_EQ(client.ReceiveAll(), "");
  server.WaitForLog(" - ended: waited too long for request");
}

TEST(ConfigServerBounds, ConnectionWithoutHandshakeIsEnded) {
  const ConfigServer server({"--request-timeout", "2"});
  TlsClient client(server.Port(), TlsClient::Start::Connect);
  server.WaitForLog("ended: waited too long for handshake");
}

TEST(ConfigServerBounds, RequestThatComesByteByByteIsEndedInTime) {
  const ConfigServer server({"--request-timeout", "2"});
  // Not its first request: each has the same time.
  AdmittedClient client(server);
  const std::string request = Record(2, "2.0", U32(4096) + std::string(4096, 'x'));
  for (std::size_t i = 0; i < request.size() && !client.IsEnded(); ++i) {
    client.Send(request.substr(i, 1));
    // Far less than the two seconds of a whole request.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(client.IsEnded());
  server.WaitForLog("ended: waited too long for the rest of a request");
}

TEST(ConfigServerBounds, AgentThatDoesNotTakeItsPatchIsEnded) {
  const ConfigServer server({"--idle-timeout", "2"});
  // More than all buffers in between hold.
  server.Write("patches/long.tar.gz", std::string(0x4000000, 'x'));
  AdmittedClient client(server, "1.0");
  client.Send(PatchRequest("1.0", "x64_72_long"));
  server.WaitForLog("waited too long for the agent to take the response");
}

TEST(ConfigServerBounds, PeerThatKeepsAnEndedConnectionOpenIsCutOff) {
  const ConfigServer server;
  TlsClient client(server.Port());
  client.Send(Record(7, "2.0", ""));
  EXPECT_EQ(client.ReceiveAll(), ResultResponse(7, "2.0", 0x80000006));
  server.WaitForLog("ended: waited too long for the agent's farewell");
}

TEST(ConfigServerBounds, ConnectionsThatEndInTheMiddleAreLogged) {
  const ConfigServer server;
  { const TlsClient client(server.Port(), TlsClient::Start::Connect); }
  server.WaitForLog(" - handshake failed: ");
  {
    AdmittedClient client(server);
    client.Send(StatusRequest("2.0").substr(0, 1));
  }
  server.WaitForLog(" agent-7 ended inside a request");
}

TEST(ConfigServerBounds, HalfSpokenConnectionsDoNotHinderOthers) {
  const ConfigServer server;
  std::vector<std::unique_ptr<TlsClient>> dribbling;
  for (int i = 0; i < 200; ++i) {
    // Half of them stop inside the handshake.
    const auto start = i % 2 == 0 ? TlsClient::Start::Connect : TlsClient::Start::Handshake;
    dribbling.push_back(std::make_unique<TlsClient>(server.Port(), start));
    ASSERT_TRUE(dribbling.back()->IsOpen());
    if (i % 2 == 1) dribbling.back()->Send(Establishment2().substr(0, 40));
  }
  AdmittedClient client(server);
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  for (const auto& other : dribbling) EXPECT_FALSE(other->IsEnded());
}

TEST(ConfigServerBounds, ConnectionsThatDribbleDoNotHinderOthers) {
  const ConfigServer server({"--request-timeout", "600"});
  std::vector<std::unique_ptr<TlsClient>> dribbling;
  for (int i = 0; i < 200; ++i) dribbling.push_back(std::make_unique<TlsClient>(server.Port()));
  const std::string request = Establishment2();
  constexpr std::size_t rounds = 10;
  for (std::size_t round = 0; round < rounds; ++round) {
    for (const auto& other : dribbling) other->Send(request.substr(round, 1));
    AdmittedClient client(server);
    EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
  }
  // They are served as well, once they have sent everything.
  for (const auto& other : dribbling) {
    other->Send(request.substr(rounds));
    EXPECT_EQ(other->Receive(26), Establishment2Response());
  }
}

TEST(ConfigServerBounds, FileThatNoAgentTakesIsNotSent) {
  const ConfigServer server;
  std::filesystem::resize_file(server.Write("patches/long.tar.gz", ""), 104857601);
  AdmittedClient client(server);
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", "x64_72_long")).result, 0x80000002u);
  server.WaitForLog("long.tar.gz is longer than 104857600 bytes");
  // The connection continues.
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
}

TEST(ConfigServerBounds, LongestFileThatAgentsTakeIsSent) {
  const ConfigServer server;
  std::filesystem::resize_file(server.Write("patches/long.tar.gz", ""), 104857600);
  AdmittedClient client(server, "1.0");
  EXPECT_EQ(client.Fetch(PatchRequest("1.0", "x64_72_long")).data.size(), 104857600u);
}

/// A patch that is longer than all buffers between the server and an agent that does not read.
class ConfigServerLongPatch : public testing::Test {
 protected:
  /// Asks for the patch, and returns once the server sends it.
  void Begin() {
    m_client.Send(PatchRequest("1.0", "x64_72_long"));
    const std::string expected = Record(5, "1.0", U32(0) + Text(std::string(size, 'x'))).substr(0, 23);
    EXPECT_EQ(m_client.Receive(23), expected);
  }

  static constexpr std::size_t size = 0x4000000;
  const ConfigServer m_server;
  const std::filesystem::path m_patch = m_server.Write("patches/long.tar.gz", std::string(size, 'x'));
  AdmittedClient m_client{m_server, "1.0"};
};

TEST_F(ConfigServerLongPatch, ThatBecomesShorterIsCutOff) {
  Begin();
  std::filesystem::resize_file(m_patch, size - 0x100000);
  const std::string received = m_client.ReceiveAll();
  EXPECT_LT(received.size(), size);
  EXPECT_EQ(received.find_first_not_of('x'), std::string::npos);
  m_server.WaitForLog(" agent-7 patch: cut off: ");
}

TEST_F(ConfigServerLongPatch, ThatBecomesLongerIsSentAsFarAsItWasAnnounced) {
  Begin();
  std::filesystem::resize_file(m_patch, size + 0x100000);
  EXPECT_TRUE(m_client.Receive(size) == std::string(size, 'x'));
  EXPECT_TRUE(m_client.Ask(StatusRequest("1.0"), ResultResponse(3, "1.0", 0)));
}

TEST(ConfigServerBounds, ThousandNamesOfPatchesAreLookedUp) {
  const ConfigServer server;
  server.Write("patches/core.tar.gz", "patch");
  AdmittedClient client(server);
  std::string names;
  for (int i = 0; i < 999; ++i) names += "x64_72_" + std::to_string(i) + ",";
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", names + "x64_72_core")).data, "patch");
  EXPECT_EQ(client.Fetch(PatchRequest("2.0", names + "x64_72_999,x64_72_core")).result, 5u);
}

}  // namespace
}  // namespace sorvex::test
