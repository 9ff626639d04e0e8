// The agent's command line, where a test needs a shell and POSIX files.
#include "AgentFixture.h"
#include "support/BlackHole.h"
#include "support/LoopbackTlsServer.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace sorvex::test {
namespace {

using testing::HasSubstr;

/// Runs `script` with the agent as $0 and `arguments` from $1 on.
ProcessResult RunShell(const std::string& script, const std::vector<std::string>& arguments) {
  std::vector<std::string> all{"-c", script, SORVEX_AGENT_PROGRAM};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunProcess("/bin/sh", all);
}

TEST(AgentCommandLine, OutputThatCannotBeWrittenIsAFailure) {
  const Installation installation;
  const ProcessResult result =
      RunShell("exec \"$0\" \"$@\" >/dev/full", installation.Arguments({"parameter", "ApplicationID"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("standard output cannot be written"));
}

TEST(AgentForward, ClosedStandardInputIsAnErrorAtOnce) {
  const BlackHole blackHole;
  const Installation installation;
  const ProcessResult result =
      RunShell("exec \"$0\" \"$@\" <&-", installation.Arguments(ForwardTo({TcpUrl(blackHole.Port())})));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("standard input: Bad file descriptor"));
}

TEST(AgentForward, ClosedStandardOutputIsNoConnection) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::string file = installation.Directory().Write("a.log", "one\n").string();
  const ProcessResult result =
      RunShell("exec \"$0\" \"$@\" <&- >&- 2>&-", installation.Arguments(ForwardTo({TcpUrl(server.Port())}, {file})));
  EXPECT_EQ(result.status, 1);
  server.Stop();
  EXPECT_EQ(server.Received(), "one\n");
}

TEST(AgentForward, FileMayHaveANameThatIsNoUtf8) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::filesystem::path file = installation.Directory().Write(
      "gr\xF6\xDF"
      "e.log",
      "one\n");
  const ProcessResult result = installation.Run(ForwardTo({TcpUrl(server.Port())}, {file.native()}));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

TEST(AgentForward, CertificateAndLogMayHaveNamesThatAreNoUtf8) {
  LoopbackTlsServer server;
  const Installation installation;
  const std::filesystem::path pem = installation.Directory().Write("\xFF.pem", ServerIdentity().CertificatePem());
  const std::filesystem::path log = installation.Directory().Path() / "\xFF.log";
  const ProcessResult result = installation.Run(ForwardTo(
      {TlsUrl(server.Port())}, {"--certificate", pem.native(), "--log-file", log.native(), "--log-level", "info"}));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(TemporaryDirectory::Read(log), HasSubstr("'stand-alone' mode"));
}

TEST(AgentForward, TerminationEndsWaitingForAPipeWithoutWriter) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::filesystem::path pipe = installation.Directory().Path() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(ForwardTo({TcpUrl(server.Port())}, {pipe.native()})));
  ASSERT_TRUE(WaitUntil([&] { return server.Connections() > 0; }));
  EXPECT_EQ(agent.Wait(std::chrono::milliseconds(300)), std::nullopt);
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(std::chrono::seconds(6)), 1);
  EXPECT_THAT(agent.Errors(), HasSubstr("asked to end; what follows in " + pipe.native() + " was not read"));
}

TEST(AgentForward, PipeIsReadWhenItsWriterComes) {
  LoopbackTcpServer server;
  const Installation installation;
  const std::filesystem::path pipe = installation.Directory().Path() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  ChildProcess agent(SORVEX_AGENT_PROGRAM, installation.Arguments(ForwardTo({TcpUrl(server.Port())}, {pipe.native()})));
  ASSERT_TRUE(WaitUntil([&] { return server.Connections() > 0; }));
  std::ofstream(pipe) << "one\n";
  EXPECT_EQ(agent.Wait(patience), 0);
  server.Stop();
  EXPECT_EQ(server.Received(), "one\n");
}

}  // namespace
}  // namespace sorvex::test
