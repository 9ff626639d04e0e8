// The agent's commands over HTTPS and the reference configuration server.
#include "HttpsServedAgent.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <memory>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* token = HttpsServedAgent::token;
constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationDigest = "dbdedaf012bb556acd82cb106d1a8a78";

/// An agent whose server has something for it, and that has already fetched something.
class HttpsAgent : public HttpsServedAgent {
 public:
  explicit HttpsAgent(const std::vector<std::string>& serverArguments = {}) : HttpsServedAgent(serverArguments) {
    Server().Write("default/AgentConfig.xml", configuration);
    Server().Write("patches/core.tar.gz", patch);
    Directory().Write("out/file", "the old one");
  }

  ProcessResult Run(const std::vector<std::string>& command) const { return GetInstallation().Run(Complete(command)); }

  std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& command) const {
    return std::make_unique<ChildProcess>(SORVEX_AGENT_PROGRAM, GetInstallation().Arguments(Complete(command)));
  }

  std::filesystem::path File() const { return Directory().Path() / "out" / "file"; }
  std::string FileContent() const { return TemporaryDirectory::Read(File()); }
  void ExpectOldFileAlone() const {
    EXPECT_EQ(FileContent(), "the old one");
    const std::filesystem::directory_iterator files(File().parent_path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
  }

  const std::string patch = [] {
    std::string text;
    for (int i = 0; text.size() < 3000000; ++i) text += std::to_string(i);
    return text;
  }();

 private:
  /// A command that fetches gets its file.
  std::vector<std::string> Complete(std::vector<std::string> command) const {
    const bool hasFile = command.front().starts_with("fetch-") || command.front() == "server-key";
    if (hasFile) command.insert(command.begin() + 1, {"--out", File().string()});
    return command;
  }
};

const std::vector<std::string> registration{"register", "--os-version", "Debian GNU/Linux 12 & + % \xC3\xB6",
                                            "--agent-version", "7.2.5"};
const std::vector<std::string> statusReport{"update-status", "--status", "2", "--time", "99"};
const std::vector<std::string> fetchConfiguration{"fetch-configuration"};
const std::vector<std::string> fetchPatch{"fetch-patch", "core"};

constexpr const char* success = "result: true\nerror-code: 0\nresult-code: 200\nerror-message: \n";

TEST(AgentAndHttpsServer, GoTheWholeRound) {
  HttpsAgent agent;
  EXPECT_EQ(Value(agent.Run({"info"}).output, "mode"), "https");
  agent.Directory().Write("install_config_autocreate.txt",
                          std::string("\xFF\xFE"
                                      "A\0u\0t\0o\0C\0r\0e\0a\0t\0i\0o\0n\0.\0K\0=\0v\0 \0&\0\n\0",
                                      40));
  EXPECT_EQ(agent.Run(registration).output, success);
  EXPECT_THAT(agent.Server().Read("agents/agent-7/registration.txt"),
              HasSubstr("os-version: Debian GNU/Linux 12 & + % \xC3\xB6\nagent-version: 7.2.5\n"
                        "auto-creation: AutoCreation.K=v &\n"));
  EXPECT_EQ(agent.Run({"test-connection"}).output, success);
  EXPECT_EQ(agent.Run({"heartbeat"}).output, success);
  EXPECT_EQ(agent.Run(statusReport).output, success);
  EXPECT_THAT(agent.Server().Read("agents/agent-7/status.txt"), HasSubstr("status: 2\nuptime: 99\n"));

  const ProcessResult fingerprint = agent.Run({"fingerprint"});
  EXPECT_EQ(fingerprint.status, 0);
  EXPECT_EQ(Value(fingerprint.output, "fingerprint"), configurationDigest);
  EXPECT_EQ(Value(fingerprint.output, "update-blocked"), "false");

  const ProcessResult fetched = agent.Run(fetchConfiguration);
  EXPECT_EQ(fetched.status, 0) << fetched.errors;
  EXPECT_EQ(fetched.output, success + std::string("bytes: 14\nmd5: ") + configurationDigest +
                                "\nmd5-compared: no, the server sends none\n");
  EXPECT_EQ(agent.FileContent(), configuration);

  const ProcessResult patch = agent.Run({"fetch-patch", "Agent", "Core"});
  EXPECT_EQ(patch.status, 0) << patch.errors;
  EXPECT_EQ(Value(patch.output, "bytes"), std::to_string(agent.patch.size()));
  EXPECT_TRUE(agent.FileContent() == agent.patch);

  const ProcessResult key = agent.Run({"server-key"});
  EXPECT_EQ(key.status, 1);
  EXPECT_THAT(key.errors, HasSubstr("there is no key over HTTPS"));

  EXPECT_THAT(agent.Server().Log(), Not(HasSubstr(token)));
  for (const std::string& request : agent.Proxy().Requests()) {
    EXPECT_THAT(request, AllOf(StartsWith("CONNECT 127.0.0.1:443 HTTP/1.1\r\n"), Not(HasSubstr(token))));
  }
}

TEST(AgentAndHttpsServer, NeedOneHandshakeForAHundredCommands) {
  HttpsAgent agent;
  const ProcessResult result = agent.Run({"heartbeat", "--repeat", "100"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(agent.Proxy().Requests().size(), 1u);
  // One tunnel carries only one connection; the server has answered each command on it. It logs after it has answered.
  int count = 0;
  EXPECT_TRUE(WaitUntil([&] {
    const std::string log = agent.Server().Log();
    const std::size_t end = log.find(" agent-7 heartbeat: 200");
    if (end == std::string::npos) return false;
    const std::size_t begin = log.rfind(' ', end - 1) + 1;
    const std::string line = log.substr(begin, end - begin) + " agent-7 heartbeat: 200 success\n";
    count = 0;
    for (std::size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++count;
    return count == 100;
  })) << count;
}

TEST(AgentAndHttpsServer, TokenDecides) {
  HttpsAgent agent;
  agent.Server().Write("tokens.txt", "another\n");
  for (const std::vector<std::string>& command :
       {registration, statusReport, std::vector<std::string>{"test-connection"}, std::vector<std::string>{"heartbeat"},
        std::vector<std::string>{"fingerprint"}, fetchConfiguration, fetchPatch}) {
    const ProcessResult result = agent.Run(command);
    EXPECT_EQ(result.status, 1) << command.front();
    EXPECT_EQ(Value(result.output, "result-code"), "200") << command.front();
    EXPECT_THAT(result.output + result.errors, Not(HasSubstr(token)));
  }
  agent.ExpectOldFileAlone();
  EXPECT_FALSE(agent.Server().Has("agents/agent-7"));
}

TEST(AgentAndHttpsServer, SayThatUpdatesAreDisabled) {
  HttpsAgent agent;
  agent.Server().Write("agents/agent-7/updates-disabled", "");
  const ProcessResult fingerprint = agent.Run({"fingerprint"});
  EXPECT_EQ(fingerprint.status, 0);
  EXPECT_EQ(Value(fingerprint.output, "update-blocked"), "true");
  for (const std::vector<std::string>& command : {fetchConfiguration, fetchPatch}) {
    const ProcessResult result = agent.Run(command);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(Value(result.output, "update"), "disabled");
  }
  agent.ExpectOldFileAlone();
}

TEST(AgentAndHttpsServer, RefuseAnotherCertificateUntilTheOldOneIsRemoved) {
  HttpsAgent agent;
  ASSERT_EQ(agent.Run({"heartbeat"}).status, 0);
  const std::filesystem::path trusted = agent.Directory().Path() / "Console.PEM";
  EXPECT_TRUE(std::filesystem::exists(trusted));

  ConfigServer changed({}, ConfigServer::Certificate::OfItsOwn);
  agent.InstallFor(changed);
  const ProcessResult refused = agent.Run({"heartbeat"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(Value(refused.output, "error-code"), "60");
  EXPECT_EQ(Value(refused.output, "result-code"), "0");
  EXPECT_THAT(Value(refused.output, "error-message"), HasSubstr("certificate"));
  EXPECT_THAT(changed.Log(), Not(HasSubstr("heartbeat")));

  std::filesystem::remove(trusted);
  const ProcessResult accepted = agent.Run({"heartbeat"});
  EXPECT_EQ(accepted.status, 0) << accepted.errors;
  EXPECT_TRUE(std::filesystem::exists(trusted));
}

TEST(AgentAndHttpsServer, WithoutAServerFail) {
  HttpsAgent agent;
  ASSERT_EQ(agent.Run({"heartbeat"}).status, 0);
  // On another port than before.
  agent.Server().Start();
  const ProcessResult result = agent.Run({"heartbeat"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(Value(result.output, "error-code"), "0");
  EXPECT_EQ(Value(result.output, "result-code"), "0");
}

struct HttpsFault {
  const char* name;
  std::vector<std::string> server;
  std::vector<std::string> command;
  int status;
  const char* errorCode;
  const char* resultCode;
};

void PrintTo(const HttpsFault& fault, std::ostream* out) { *out << fault.name; }

class AgentWithHttpsFault : public testing::TestWithParam<HttpsFault> {};

TEST_P(AgentWithHttpsFault, LeavesTheOldFileAndGoesOnWhenTheServerIsWell) {
  const HttpsFault& fault = GetParam();
  std::vector<std::string> arguments = fault.server;
  arguments.insert(arguments.end(), {"--fault-times", "1"});
  HttpsAgent agent(arguments);
  const ProcessResult result = agent.Run(fault.command);
  EXPECT_EQ(result.status, fault.status) << result.errors;
  EXPECT_EQ(Value(result.output, "result"), fault.status == 0 ? "true" : "false");
  EXPECT_EQ(Value(result.output, "error-code"), fault.errorCode);
  EXPECT_EQ(Value(result.output, "result-code"), fault.resultCode);
  if (fault.resultCode != std::string("200") || fault.status != 0) agent.ExpectOldFileAlone();
  const ProcessResult next = agent.Run(fault.command);
  EXPECT_EQ(next.status, 0) << next.errors;
  EXPECT_EQ(Value(next.output, "result-code"), "200");
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, AgentWithHttpsFault,
    testing::Values(HttpsFault{"Late", {"--fault", "late:2", "--fault-on", "status"}, statusReport, 0, "0", "200"},
                    HttpsFault{
                        "CutInTheHeader", {"--fault", "cut:10", "--fault-on", "status"}, statusReport, 1, "52", "0"},
                    HttpsFault{"CutInAConfiguration",
                               {"--fault", "cut:100", "--fault-on", "configuration"},
                               fetchConfiguration,
                               1,
                               "18",
                               "200"},
                    HttpsFault{"CutInAPatch", {"--fault", "cut:1000000"}, fetchPatch, 1, "18", "200"},
                    HttpsFault{"ByteByByte", {"--fault", "byte-by-byte"}, fetchConfiguration, 0, "0", "200"},
                    HttpsFault{"Html", {"--fault", "html", "--fault-on", "status"}, statusReport, 1, "0", "200"},
                    HttpsFault{"HtmlAsAConfiguration",
                               {"--fault", "html", "--fault-on", "configuration"},
                               fetchConfiguration,
                               1,
                               "0",
                               "200"},
                    HttpsFault{"HtmlAsAPatch", {"--fault", "html"}, fetchPatch, 1, "0", "200"},
                    HttpsFault{"NoContent", {"--fault", "status:204"}, fetchPatch, 0, "0", "204"},
                    HttpsFault{"NotFound", {"--fault", "status:404"}, fetchPatch, 1, "0", "404"},
                    HttpsFault{"ServerError", {"--fault", "status:500"}, fetchPatch, 1, "0", "500"},
                    HttpsFault{"ServerErrorToAStatus", {"--fault", "status:500"}, statusReport, 1, "0", "500"},
                    HttpsFault{"ServerErrorToAConfiguration",
                               {"--fault", "status:500", "--fault-on", "configuration"},
                               fetchConfiguration,
                               1,
                               "0",
                               "500"},
                    HttpsFault{"Redirect", {"--fault", "redirect"}, fetchPatch, 1, "0", "302"},
                    HttpsFault{"EndlessAnswerToAStatus", {"--fault", "endless-body"}, statusReport, 1, "23", "200"},
                    HttpsFault{"CloseAfterRequest", {"--fault", "close-after-request"}, statusReport, 1, "52", "0"},
                    HttpsFault{"HeaderWithoutColon", {"--fault", "header-without-colon"}, statusReport, 1, "8", "200"},
                    HttpsFault{"HugeHeader", {"--fault", "huge-header"}, statusReport, 1, "27", "200"}),
    [](const testing::TestParamInfo<HttpsFault>& test) { return test.param.name; });

class AgentOverHttps : public testing::TestWithParam<const char*> {};

TEST_P(AgentOverHttps, TerminationEndsARequestThatDoesNot) {
  HttpsAgent agent({"--fault", GetParam(), "--fault-on", "patch"});
  const std::unique_ptr<ChildProcess> process = agent.Start(fetchPatch);
  // Data have arrived, and by now no more arrive, or they never end.
  agent.Server().WaitForLog(std::string(GetParam()).starts_with("stall") ? "patch: stalled after" : "listening");
  ASSERT_TRUE(WaitUntil([&] { return !agent.Proxy().Requests().empty(); }));
  EXPECT_EQ(process->Wait(500ms), std::nullopt);
  const auto begin = std::chrono::steady_clock::now();
  process->RequestEnd();
  const std::optional<int> status = process->Wait(patience);
  // Two seconds on an idle machine; far less than a request that does not end.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 6s);
  EXPECT_THAT(status, testing::AnyOf(1, 130));
  agent.ExpectOldFileAlone();
}

INSTANTIATE_TEST_SUITE_P(Bodies, AgentOverHttps, testing::Values("stall:1000000", "stall:0", "endless-body"),
                         [](const testing::TestParamInfo<const char*>& test) { return std::to_string(test.index); });

}  // namespace
}  // namespace sorvex::test
