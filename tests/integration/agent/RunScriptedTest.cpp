// The running agent with a module whose connection does what the test says.
#include "FetchCommandTest.h"
#include "RunFixture.h"

#include <host/Digest.h>

#include <chrono>
#include <memory>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* back = "The configuration server is back.";

/// Nothing to do, in one line that can also be a fingerprint.
constexpr const char* emptyConfiguration = "<AgentConfig/>";

/// Wants a patch.
constexpr const char* componentConfiguration =
    "<AgentConfig><Components><Component Name=\"A\" BuildNumber=\"1\"/></Components></AgentConfig>";

/// Wants two.
constexpr const char* twoComponents =
    "<AgentConfig><Components><Component Name=\"A\" BuildNumber=\"1\"/><Component Name=\"B\" BuildNumber=\"1\"/>"
    "</Components></AgentConfig>";

class RunScriptedTest : public testing::Test {
 protected:
  /// Runs the agent with this script for a connection like the one over direct TLS.
  std::unique_ptr<RunningAgent> Run(const std::vector<std::string>& script, const std::string& interval = "1") const {
    std::vector<std::string> arguments{"--module",    SORVEX_SCRIPTED_MODULE,
                                       "--parameter", "Calls=" + m_installation.CallsPath().string(),
                                       "--parameter", "ConfigurationServer=server"};
    for (const std::string& entry : script) arguments.insert(arguments.end(), {"--parameter", entry});
    return std::make_unique<RunningAgent>(m_installation, arguments, interval);
  }
  /// The same for one like the one over HTTPS, whose configuration is its fingerprint too.
  std::unique_ptr<RunningAgent> RunHttps(const std::string& configuration) const {
    return Run({"ForceHTTPSConfigServerConnection=true", "Codes=200", "Data=" + configuration});
  }

  std::string Calls() const { return m_installation.Calls(); }
  bool WaitForCalls(const std::string& call, std::size_t number) const {
    return WaitUntil([&] { return CountOf(Calls(), call + "\n") >= number; });
  }
  void Write(const char* name, const std::string& content) const { m_installation.Directory().Write(name, content); }
  bool Has(const char* name) const { return std::filesystem::exists(m_installation.Directory().Path() / name); }
  std::string Content(const char* name) const {
    return TemporaryDirectory::Read(m_installation.Directory().Path() / name);
  }

  FetchInstallation m_installation;
};

TEST_F(RunScriptedTest, RoundIsRegistrationOnceThenReportAndFingerprint) {
  const auto agent = Run({"Codes=0,0,5,0,5,0,5,0"});
  ASSERT_TRUE(WaitForCalls("Disconnect", 2)) << Calls();
  const std::string round = "UpdateStatus 1\nConnect\nGetConfigurationFingerprint\nDisconnect\n";
  EXPECT_THAT(Calls(), StartsWith("Create\nRegisterInstance\n" + round + round));
}

struct FailingCall {
  const char* name;
  std::vector<std::string> script;
  const char* failure;
};

void PrintTo(const FailingCall& call, std::ostream* out) { *out << call.name; }

/// Operations may fail without an error code.
class RunFailingCallTest : public RunScriptedTest, public testing::WithParamInterface<FailingCall> {};

TEST_P(RunFailingCallTest, IsAFailureWhateverItsCode) {
  Write("AgentConfig.xml", componentConfiguration);
  Write("AgentConfig.md5", "fingerprint");
  const auto agent = Run(GetParam().script);
  EXPECT_TRUE(agent->WaitForLog("The configuration server failed (" + std::string(GetParam().failure)));
  EXPECT_FALSE(Has("patch/x64_72_a_1.tar.gz"));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, RunFailingCallTest,
    testing::Values(
        FailingCall{"Registration", {"Codes=0", "False=Register"}, "registration: 0, as scripted)"},
        FailingCall{"Status", {"Codes=0", "False=UpdateStatus"}, "the status report: 0, as scripted)"},
        FailingCall{"Connect", {"Codes=0", "Connect=false"}, "the connection: 0, as scripted)"},
        FailingCall{"Configuration", {"Codes=0"}, "the configuration: 0, as scripted)"},
        FailingCall{
            "Patch", {"Codes=0,0,5,0", "False=RetrieveSoftwarePatch"}, "the patch x64_72_a_1.tar.gz: 0, as scripted)"},
        FailingCall{
            "PatchWithAnErrorStatus",
            {"ForceHTTPSConfigServerConnection=true", "Codes=200,200,200,500", "Fingerprint=fingerprint", "Data=hello"},
            "the patch x64_72_a_1.tar.gz: 0, as scripted)"},
        FailingCall{"PatchWithAnotherDigest",
                    {"Codes=0,0,5,0", "Data=hello", "Digest=00000000000000000000000000000000"},
                    "the patch x64_72_a_1.tar.gz: 0, the MD5 of what came is "
                    "5d41402abc4b2a76b9719d911017c592, the server's is '00000000000000000000000000000000')"}),
    [](const testing::TestParamInfo<FailingCall>& test) { return std::string(test.param.name); });

TEST_F(RunScriptedTest, PatchOfTheOwnConfigurationIsFetched) {
  Write("AgentConfig.xml", componentConfiguration);
  // In either case.
  const auto agent = Run({"Codes=0,0,5,0,0,5", "Data=hello", "Digest=5D41402ABC4B2A76B9719D911017C592"});
  ASSERT_TRUE(agent->WaitForLog("The patch x64_72_a_1.tar.gz waits (5 bytes)."));
  EXPECT_EQ(Content("patch/x64_72_a_1.tar.gz"), "hello");
}

TEST_F(RunScriptedTest, EmptyPatchIsNone) {
  Write("AgentConfig.xml", componentConfiguration);
  Write("AgentConfig.md5", "fingerprint");
  const auto agent = Run({"ForceHTTPSConfigServerConnection=true", "Codes=200", "Fingerprint=fingerprint"});
  EXPECT_TRUE(agent->WaitForLog("failed (the patch x64_72_a_1.tar.gz: 0, what came is no archive)"));
  EXPECT_FALSE(Has("patch/x64_72_a_1.tar.gz"));
}

TEST_F(RunScriptedTest, UpdatesDisabledForAPatchAreNoFailure) {
  Write("AgentConfig.xml", componentConfiguration);
  const auto agent = Run({"Codes=0,0,5,7,0,5,7,0,5,7,0"});
  ASSERT_TRUE(WaitForCalls("RetrieveSoftwarePatch A", 2)) << Calls();
  EXPECT_THAT(agent->Log(), HasSubstr("The configuration server has no patch x64_72_a_1.tar.gz."));
  EXPECT_THAT(agent->Log(), Not(HasSubstr("The configuration server failed (")));
}

TEST_F(RunScriptedTest, PatchThatFailsFailsTheRound) {
  Write("AgentConfig.xml", componentConfiguration);
  const auto agent = Run({"Codes=0,0,5,0,0,5,0,0,5,0", "Data=hello", "Digest=0"});
  ASSERT_TRUE(WaitForCalls("RetrieveSoftwarePatch A", 2)) << Calls();
  ASSERT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "connection").starts_with("failing since 20"); }));
  EXPECT_THAT(agent->Log(), Not(HasSubstr(back)));
}

TEST_F(RunScriptedTest, UnusablePatchDoesNotKeepTheAgentFromTheNext) {
  Write("AgentConfig.xml", twoComponents);
  const auto agent = Run({"Codes=0,0,5,0,0,0,5,0,0", "Data=hello", "Digest=0"});
  ASSERT_TRUE(WaitForCalls("RetrieveSoftwarePatch A\nRetrieveSoftwarePatch B\nDisconnect", 2)) << Calls();
  ASSERT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "connection").starts_with("failing since 20"); }));
  EXPECT_THAT(agent->Log(), Not(HasSubstr(back)));
}

TEST_F(RunScriptedTest, PatchThatTheServerRefusesDoesNotKeepTheAgentFromTheNext) {
  Write("AgentConfig.xml", twoComponents);
  Write("AgentConfig.md5", "fingerprint");
  const auto agent = Run(
      {"ForceHTTPSConfigServerConnection=true", "Codes=200,200,200,500,200", "Fingerprint=fingerprint", "Data=hello"});
  EXPECT_TRUE(agent->WaitForLog("failed (the patch x64_72_a_1.tar.gz: 0, as scripted)"));
  EXPECT_TRUE(agent->WaitForLogInOrder("The patch x64_72_b_1.tar.gz waits (5 bytes).",
                                       "The patch x64_72_a_1.tar.gz waits (5 bytes)."));
}

TEST_F(RunScriptedTest, PatchThatDoesNotArriveEndsTheRound) {
  Write("AgentConfig.xml", twoComponents);
  const auto agent = Run({"Codes=0,0,5,0,0,5,0,0,5,0", "False=RetrieveSoftwarePatch"});
  ASSERT_TRUE(WaitForCalls("RetrieveSoftwarePatch A\nDisconnect", 2)) << Calls();
  EXPECT_THAT(Calls(), Not(HasSubstr("RetrieveSoftwarePatch B")));
}

TEST_F(RunScriptedTest, PausesAfterFailuresGrow) {
  const auto agent = Run({"Codes=0", "Connect=false"});
  ASSERT_TRUE(WaitForCalls("Connect", 1));
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitForCalls("Connect", 5)) << Calls();
  // At least half of 1, 2, 4 and 8 seconds; four intervals are at most 4.8 seconds.
  EXPECT_GT(std::chrono::steady_clock::now() - begin, 5500ms);
}

TEST_F(RunScriptedTest, OwnFileThatIsRefusedIsReported) {
  Write("AgentConfig.xml", "<AgentConf");
  const auto agent = Run({"Codes=0,0,7,0,7,0,7,0"});
  ASSERT_TRUE(agent->WaitForLog("has disabled updates"));
  EXPECT_THAT(Calls(), HasSubstr("RegisterInstance\nUpdateStatus 3\n"));
  // The round was a success, and the file is refused all the same.
  ASSERT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "connection").starts_with("in order"); }));
  EXPECT_THAT(StatusOf(m_installation, "refused"), StartsWith("line 1: "));
}

TEST_F(RunScriptedTest, ServerWithoutAnotherConfigurationDoesNotMakeADamagedFileGood) {
  Write("AgentConfig.xml", "<AgentConf");
  const auto agent = Run({"Codes=0,0,5,0,5,0,5,0"});
  ASSERT_TRUE(WaitForCalls("Disconnect", 1));
  ASSERT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "connection").starts_with("in order"); }));
  EXPECT_THAT(StatusOf(m_installation, "refused"), StartsWith("line 1: "));
}

TEST_F(RunScriptedTest, RefusalIsReportedInTheSameRound) {
  const std::string wrong = "<AgentConfig><Typo/></AgentConfig>";
  const auto agent =
      Run({"Codes=0", "Data=" + wrong, "Digest=" + WindowsAgentCommon::MD5Sum(wrong.data(), wrong.size())});
  ASSERT_TRUE(WaitForCalls("Disconnect", 2)) << Calls();
  EXPECT_THAT(Calls(), HasSubstr("Disconnect\nUpdateStatus 3\nUpdateStatus 3\nConnect\n"));
}

TEST_F(RunScriptedTest, RefusalIsShownAlsoWhereTheRoundFails) {
  const std::string wrong = "<AgentConfig><Typo/></AgentConfig>";
  // The server is asked for a patch of the configuration in force, and fails.
  Write("AgentConfig.xml", componentConfiguration);
  const auto agent = Run(
      {"Codes=0,0,0,-2147483644", "Data=" + wrong, "Digest=" + WindowsAgentCommon::MD5Sum(wrong.data(), wrong.size())});
  ASSERT_TRUE(agent->WaitForLog("The configuration server failed (the patch "));
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "refused").starts_with("line 1: AgentConfig has no"); }));
}

TEST_F(RunScriptedTest, ConfigurationThatCannotBeAppliedDoesNotEndTheAgent) {
  // This module makes no sockets.
  const auto agent =
      RunHttps("<AgentConfig><Destinations><Destination Type=\"tcp\" Address=\"a\"/></Destinations></AgentConfig>");
  const std::string reason = "the module made no socket for tcp://a:514";
  ASSERT_TRUE(
      agent->WaitForLog("The configuration from the server is refused; the previous one stays in force: " + reason));
  EXPECT_TRUE(WaitForCalls("UpdateStatus 3", 1)) << Calls();
  EXPECT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "refused") == reason; }));
  // It may work the next time.
  EXPECT_TRUE(WaitForCalls("RetrieveConfiguration", 3)) << Calls();
  EXPECT_EQ(CountOf(agent->Log(), "is refused"), 1u);
}

TEST_F(RunScriptedTest, OwnFileThatCannotBeAppliedIsTriedAgain) {
  // This module makes no sockets.
  Write("AgentConfig.xml",
        "<AgentConfig><Destinations><Destination Type=\"tcp\" Address=\"a\"/></Destinations></AgentConfig>");
  const auto agent = Run({"StandAlone=true"});
  EXPECT_TRUE(WaitForCalls("CreateSocket", 3)) << Calls();
  EXPECT_EQ(CountOf(agent->Log(), "is refused"), 1u);
}

TEST_F(RunScriptedTest, FingerprintHasAtMostAHundredBytes) {
  const auto configuration = [](std::size_t size) {
    const std::string begin = "<AgentConfig>";
    const std::string end = "</AgentConfig>";
    return begin + std::string(size - begin.size() - end.size(), ' ') + end;
  };
  {
    const auto agent = RunHttps(configuration(101));
    ASSERT_TRUE(agent->WaitForLog("failed (the fingerprint: 0, the server's answer is none)"));
  }
  const auto agent = RunHttps(configuration(100));
  EXPECT_TRUE(WaitUntil([&] { return Content("AgentConfig.md5") == configuration(100); })) << agent->Log();
}

TEST_F(RunScriptedTest, EmptyFingerprintIsNone) {
  const auto agent = RunHttps("");
  EXPECT_TRUE(agent->WaitForLog("failed (the fingerprint: 0, the server's answer is none)"));
}

TEST_F(RunScriptedTest, FingerprintOfSeveralLinesIsNone) {
  for (const char* const fingerprint : {"finger\nprint", "finger\rprint"}) {
    const auto agent = Run({"ForceHTTPSConfigServerConnection=true", "Codes=200",
                            std::string("Data=") + emptyConfiguration, std::string("Fingerprint=") + fingerprint});
    EXPECT_TRUE(agent->WaitForLog("failed (the fingerprint: 0, the server's answer is none)"));
  }
}

TEST_F(RunScriptedTest, FingerprintThatIsNoDigestStaysAfterARestart) {
  // Neither the length nor the characters alone make a digest.
  for (const std::string& fingerprint : {std::string("the fingerprint"), std::string("abc"), std::string(32, 'g')}) {
    std::filesystem::remove(m_installation.CallsPath());
    for (std::size_t run = 1; run <= 2; ++run) {
      const auto agent = Run({"ForceHTTPSConfigServerConnection=true", "Codes=200",
                              std::string("Data=") + emptyConfiguration, "Fingerprint=" + fingerprint});
      ASSERT_TRUE(WaitForCalls("Disconnect", 2 * run)) << Calls();
    }
    EXPECT_EQ(CountOf(Calls(), "RetrieveConfiguration\n"), 1u) << Calls();
  }
}

TEST_F(RunScriptedTest, ChangeByHandIsNoticedAlsoBesideADigestInUpperCase) {
  Write("AgentConfig.xml", emptyConfiguration);
  Write("AgentConfig.md5", "5D41402ABC4B2A76B9719D911017C592");
  const auto agent = Run({"Codes=0,0,5,0,5,0,5,0"});
  ASSERT_TRUE(WaitForCalls("Disconnect", 1));
  EXPECT_FALSE(Has("AgentConfig.md5"));
}

TEST_F(RunScriptedTest, DigestInUpperCaseIsTheFilesOwn) {
  // The MD5 of "<AgentConfig/>", from the md5sum program.
  Write("AgentConfig.xml", emptyConfiguration);
  Write("AgentConfig.md5", "DBDEDAF012BB556ACD82CB106D1A8A78");
  const auto agent = Run({"Codes=0,0,5,0,5,0,5,0"});
  ASSERT_TRUE(WaitForCalls("Disconnect", 1));
  EXPECT_EQ(Content("AgentConfig.md5"), "DBDEDAF012BB556ACD82CB106D1A8A78");
}

/// Agents that start together do not come to their server together.
TEST_F(RunScriptedTest, TerminationBeforeTheFirstRoundIsNotReported) {
  int registered = 0;
  constexpr int agents = 5;
  for (int number = 0; number < agents; ++number) {
    std::filesystem::remove(m_installation.CallsPath());
    // The first round is somewhere within a minute.
    const auto agent = Run({"Codes=0"}, "86400");
    // Its thread for the server runs by then.
    ASSERT_TRUE(WaitUntil([&] { return StatusOf(m_installation, "connection") != ""; }));
    EXPECT_EQ(agent->End(), 0);
    if (Calls() != "Create\n") {
      EXPECT_THAT(Calls(), StartsWith("Create\nRegisterInstance\n"));
      registered += 1;
    }
  }
  EXPECT_LT(registered, agents);
}

TEST_F(RunScriptedTest, TerminationIsNotReportedToAServerThatIsAway) {
  const auto agent = Run({"Codes=0", "Connect=false"});
  ASSERT_TRUE(agent->WaitForLog("The configuration server failed (the connection"));
  EXPECT_EQ(agent->End(), 0);
  EXPECT_THAT(Calls(), Not(HasSubstr("UpdateStatus 0")));
}

}  // namespace
}  // namespace sorvex::test
