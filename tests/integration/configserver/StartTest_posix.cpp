// What only a POSIX system has: modes, signals, limits of a process, and files that are none.
#include "ConfigServerFixture.h"
#include "HttpsClient.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace sorvex::test {
namespace {

using std::filesystem::perms;
using testing::HasSubstr;

TEST(ConfigServerStart, KeyIsForItsOwnerAlone) {
  const ConfigServer server({}, ConfigServer::Certificate::OfItsOwn);
  const perms key = std::filesystem::status(server.Folder() / "key.pem").permissions();
  EXPECT_EQ(key, perms::owner_read | perms::owner_write);
  EXPECT_EQ(std::filesystem::status(server.Folder()).permissions(), perms::owner_all);
}

/// A name that is taken although nothing is found under it.
void TakeName(const ConfigServer& server, const std::string& name) {
  std::filesystem::create_symlink("nowhere", server.Folder() / name);
}

/// Lets a start fail, and expects it to name the file that it must not replace.
void ExpectNoStartBecauseOf(const ConfigServer& server, const std::string& name) {
  const ProcessResult result =
      RunProcess(SORVEX_CONFIGSERVER_PROGRAM, {"--data", server.Folder().string(), "--wire-port", "0"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr(name + ": File exists"));
  EXPECT_TRUE(std::filesystem::is_symlink(server.Folder() / name));
}

TEST(ConfigServerStart, GivesTheKeyItsNameAfterTheCertificateAndReplacesNeither) {
  ConfigServer server;
  std::filesystem::remove(server.Folder() / "certificate.pem");
  std::filesystem::remove(server.Folder() / "key.pem");
  TakeName(server, "certificate.pem");
  ExpectNoStartBecauseOf(server, "certificate.pem");
  EXPECT_FALSE(server.Has("key.pem"));
  EXPECT_EQ(std::filesystem::status(server.Folder() / "key.pem.unfinished").permissions(),
            perms::owner_read | perms::owner_write);

  std::filesystem::remove(server.Folder() / "certificate.pem");
  TakeName(server, "key.pem");
  ExpectNoStartBecauseOf(server, "key.pem");
  EXPECT_TRUE(server.Has("certificate.pem"));
  ExpectNoStartBecauseOf(server, "key.pem");

  std::filesystem::remove(server.Folder() / "key.pem");
  const std::string certificate = server.Read("certificate.pem");
  server.Start();
  EXPECT_EQ(TlsClient(server.Port()).Certificate(), certificate);
  EXPECT_EQ(std::filesystem::status(server.Folder() / "key.pem").permissions(), perms::owner_read | perms::owner_write);
}

TEST(ConfigServerStart, FolderIsForItsOwnerAloneHoweverItIsWritten) {
  const TemporaryDirectory directory;
  for (const char* const name : {"plain", "slash/", "slashes//", "dot/."}) {
    const std::filesystem::path folder = directory.Path() / name;
    const ProcessResult result = RunProcess(SORVEX_CONFIGSERVER_PROGRAM, {"--data", folder.string(), "--certificate",
                                                                          "none", "--key", "none", "--wire-port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(std::filesystem::status(folder).permissions(), perms::owner_all) << name;
  }
}

TEST(ConfigServerStart, InterruptionEndsItLikeTermination) {
  ConfigServer server;
  ASSERT_EQ(kill(static_cast<pid_t>(server.Process().Id()), SIGINT), 0);
  EXPECT_EQ(server.Process().Wait(std::chrono::seconds(20)), 0);
  EXPECT_THAT(server.Log(), HasSubstr("stopped"));
}

TEST(ConfigServerStart, MayOpenAsManyFilesAsTheSystemAllows) {
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  rlimit low = usual;
  low.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  ConfigServer server;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  rlimit ofServer{};
  ASSERT_EQ(prlimit(static_cast<pid_t>(server.Process().Id()), RLIMIT_NOFILE, nullptr, &ofServer), 0);
  EXPECT_EQ(ofServer.rlim_cur, usual.rlim_max);
}

TEST(ConfigServerStart, ReaderOfTheLogMayGoAway) {
  const ConfigServer maker;
  const TemporaryDirectory directory;
  const std::filesystem::path pipe = directory.Path() / "log";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  const ChildProcess server(
      "/bin/sh", {"-c", R"(log=$1; shift; exec "$@" >"$log")", "sh", pipe.string(), SORVEX_CONFIGSERVER_PROGRAM,
                  "--data", maker.Folder().string(), "--wire-port", "0", "--listen", "127.0.0.1"});
  std::string log;
  const std::string start = " listening on 127.0.0.1 port ";
  EXPECT_TRUE(WaitUntil([&] {
    char part[4096];
    const ssize_t count = read(reader, part, sizeof part);
    if (count > 0) log.append(part, static_cast<std::size_t>(count));
    return log.find("every agent is accepted") != std::string::npos;
  }));
  close(reader);
  ASSERT_NE(log.find(start), std::string::npos);
  const int port = std::stoi(log.substr(log.find(start) + start.size()));
  for (int i = 0; i < 3; ++i) {
    TlsClient client(static_cast<std::uint16_t>(port));
    client.Send(Establishment2());
    EXPECT_EQ(client.Receive(26), Establishment2Response());
  }
}

TEST(ConfigServer, AcceptsNobodyWhileItsTokensCannotBeRead) {
  const ConfigServer server;
  // A socket is there and cannot be opened, whoever the user is.
  const std::string path = (server.Folder() / "tokens.txt").string();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(socket);

  TlsClient client(server.Port());
  client.Send(Establishment2());
  EXPECT_EQ(client.Receive(26), Establishment2Response(0x80000002));
  server.WaitForLog("tokens.txt cannot be read");
  EXPECT_EQ(HttpsClient(server.HttpsPort()).Command("Name=PostHeartbeat&Identifier=agent-7").status, 500);
}

TEST(ConfigServer, FailsWhenAConfigurationIsShorterThanItsSize) {
  // The system tells a size for these files, and gives fewer bytes.
  const std::filesystem::path file = "/sys/devices/system/cpu/online";
  std::error_code error;
  if (std::filesystem::file_size(file, error) < 4096 || error) GTEST_SKIP() << "this system has no such file";
  const ConfigServer server;
  std::filesystem::create_symlink(file, server.Folder() / "default/AgentConfig.xml");
  AdmittedClient client(server);
  EXPECT_EQ(client.Fetch(ConfigurationRequest("2.0")).result, 0x80000002u);
  server.WaitForLog(" agent-7 failed: ");
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));

  HttpsClient https(server.HttpsPort());
  EXPECT_EQ(https.Command("Name=GetConfigurationFingerprint&Identifier=agent-7").status, 500);
  https.Send(HttpsCommandRequest("Name=RetrieveConfiguration&Identifier=agent-7"));
  EXPECT_THAT(https.ReceiveAll(), testing::EndsWith("\r\n\r\n"));
  server.WaitForLog(" agent-7 configuration: cut off: ");
}

}  // namespace
}  // namespace sorvex::test
