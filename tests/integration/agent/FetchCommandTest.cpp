// What the agent does with data from a configuration server.
#include "FetchCommandTest.h"

#include "support/RecordingLogger.h"

namespace sorvex::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

/// The two commands whose files have a digest.
class AgentFetch : public testing::TestWithParam<const char*> {
 protected:
  AgentFetch() { m_installation.WriteOldFile(); }

  std::vector<std::string> Command() const {
    std::vector<std::string> command{GetParam(), "--out", m_installation.File().string()};
    if (command.front() == "fetch-patch") command.push_back("core");
    return command;
  }
  ProcessResult Fetch(const std::vector<std::string>& script) const { return m_installation.Run(script, Command()); }

  FetchInstallation m_installation;
};

TEST_P(AgentFetch, ReplacesTheFileAndPrintsItsDigest) {
  const ProcessResult result = Fetch({"Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output,
            std::string("result: true\nerror-code: 0\nresult-code: 0\nerror-message: as scripted\nbytes: 5\nmd5: ") +
                helloDigest + "\n");
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(TemporaryDirectory::Read(m_installation.File()), "hello");
}

TEST_P(AgentFetch, MakesTheFileWhenThereIsNone) {
  std::filesystem::remove(m_installation.File());
  EXPECT_EQ(Fetch({"Data=hello", std::string("Digest=") + helloDigest}).status, 0);
  EXPECT_EQ(TemporaryDirectory::Read(m_installation.File()), "hello");
}

TEST_P(AgentFetch, ComparesDigestsWhateverTheCaseOfTheirLetters) {
  EXPECT_EQ(Fetch({"Data=hello", "Digest=5D41402ABC4B2A76B9719D911017C592"}).status, 0);
}

TEST_P(AgentFetch, KeepsTheOldFileWhenTheDigestIsAnother) {
  const ProcessResult result = Fetch({"Data=hello", "Digest=5d41402abc4b2a76b9719d911017c593"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("result: false\n"));
  EXPECT_EQ(Value(result.output, "md5"), "(absent)");
  EXPECT_THAT(result.errors, HasSubstr("the MD5 of what came is 5d41402abc4b2a76b9719d911017c592"));
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, TellsBothDigestsAndThatTheFileIsLeftAsItIs) {
  EXPECT_EQ(Fetch({"Data=hello", "Digest=5d41402abc4b2a76b9719d911017c593"}).errors,
            "sorvex-agent: the MD5 of what came is 5d41402abc4b2a76b9719d911017c592, the server's is "
            "'5d41402abc4b2a76b9719d911017c593'; the file is left as it is\n");
}

TEST_P(AgentFetch, KeepsTheOldFileWhenTheOperationFailsWhateverCameWithIt) {
  const ProcessResult result = Fetch({"False=Deliver", "Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "result"), "false");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWithoutADigest) {
  const ProcessResult result = Fetch({"Data=hello"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("result: false\n"));
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWhenNoUpdateIsNeeded) {
  const ProcessResult result = Fetch({"Codes=5", "Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "result: true\nerror-code: 0\nresult-code: 5\nerror-message: as scripted\nupdate: none\n");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWhenUpdatesAreDisabled) {
  const ProcessResult result = Fetch({"Codes=7", "Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Value(result.output, "update"), "disabled");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWhenTheExchangeFails) {
  const ProcessResult result = Fetch({"Codes=-2147483644", "Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "result"), "false");
  EXPECT_EQ(Value(result.output, "error-code"), "-2147483644");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWhenNothingCame) {
  EXPECT_EQ(Fetch({}).status, 1);
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, KeepsTheOldFileWithoutAConnection) {
  const ProcessResult result = Fetch({"Connect=false", "Data=hello", std::string("Digest=") + helloDigest});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "result"), "false");
  EXPECT_EQ(m_installation.Calls(), "Create\nConnect\nDisconnect\n");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, AsksNobodyWhenTheFileCannotBeWritten) {
  for (const std::filesystem::path& path :
       {m_installation.Directory().Path() / "nowhere" / "file", m_installation.File().parent_path()}) {
    std::vector<std::string> command = Command();
    command[2] = path.string();
    const ProcessResult result = m_installation.Run({"Data=hello"}, command);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.errors, HasSubstr(Logged(path.string())));
    EXPECT_EQ(m_installation.Calls(), "Create\n");
    std::filesystem::remove(m_installation.CallsPath());
  }
}

TEST_P(AgentFetch, KilledInTheMiddleLeavesTheOldFileAlone) {
  {
    const ChildProcess agent(SORVEX_AGENT_PROGRAM, m_installation.Arguments({"Data=hello", "Endless=true"}, Command()));
    ASSERT_TRUE(WaitUntil([&] { return m_installation.Calls().find("Endless") != std::string::npos; }));
  }
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentFetch, TerminationInTheMiddleLeavesTheOldFileAlone) {
  ChildProcess agent(SORVEX_AGENT_PROGRAM, m_installation.Arguments({"Data=hello", "Endless=true"}, Command()));
  ASSERT_TRUE(WaitUntil([&] { return m_installation.Calls().find("Endless") != std::string::npos; }));
  agent.RequestEnd();
  EXPECT_EQ(agent.Wait(patience), 1);
  EXPECT_THAT(agent.Output(), HasSubstr("result: false\n"));
  m_installation.ExpectOldFileAlone();
}

INSTANTIATE_TEST_SUITE_P(Commands, AgentFetch, testing::Values("fetch-configuration", "fetch-patch"),
                         [](const testing::TestParamInfo<const char*>& test) {
                           return std::string(test.param) == "fetch-patch" ? "Patch" : "Configuration";
                         });

TEST(AgentFetchConfiguration, AsksForTheFingerprintFirst) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  installation.Run({"Data=hello"}, {"fetch-configuration", "--out", installation.File().string()});
  EXPECT_EQ(installation.Calls(), "Create\nConnect\nGetConfigurationFingerprint\nRetrieveConfiguration\nDisconnect\n");
}

TEST(AgentFetchConfiguration, IsNotAskedForWhenTheFingerprintIsNoSuccess) {
  for (const char* const code : {"5", "7", "-2147483644"}) {
    const FetchInstallation installation;
    installation.WriteOldFile();
    installation.Run({std::string("Codes=") + code, "Data=hello"},
                     {"fetch-configuration", "--out", installation.File().string()});
    EXPECT_EQ(installation.Calls(), "Create\nConnect\nGetConfigurationFingerprint\nDisconnect\n") << code;
  }
}

TEST(AgentFetchPatch, AsksForOneAtATimeUntilThereIsOne) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result =
      installation.Run({"Codes=5,5,0", "Data=hello", std::string("Digest=") + helloDigest},
                       {"fetch-patch", "--out", installation.File().string(), "a", "b", "c", "d"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(TemporaryDirectory::Read(installation.File()), "hello");
  EXPECT_EQ(installation.Calls(),
            "Create\nConnect\nRetrieveSoftwarePatch a\nRetrieveSoftwarePatch b\nRetrieveSoftwarePatch c\nDisconnect\n");
}

TEST(AgentFetchPatch, EndsWithTheFirstFailure) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result = installation.Run({"Codes=-2147483644,0", "Data=hello"},
                                                {"fetch-patch", "--out", installation.File().string(), "a", "b"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(installation.Calls(), "Create\nConnect\nRetrieveSoftwarePatch a\nDisconnect\n");
}

TEST(AgentServerKey, IsWrittenToTheFile) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result =
      installation.Run({"Codes=5", "Key=hello"}, {"server-key", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(Keys(result.output), ElementsAre("result", "error-code", "result-code", "error-message", "bytes", "md5"));
  EXPECT_EQ(Value(result.output, "md5"), helloDigest);
  EXPECT_EQ(TemporaryDirectory::Read(installation.File()), "hello");
}

TEST(AgentServerKey, ComesWithTheAnswerToTheFingerprint) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result =
      installation.Run({"Codes=0", "Key=hello"}, {"server-key", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(TemporaryDirectory::Read(installation.File()), "hello");
  EXPECT_EQ(installation.Calls(), "Create\nConnect\nGetConfigurationFingerprint\nDisconnect\n");
}

TEST(AgentServerKey, IsAskedForOnlyOverAConnection) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result =
      installation.Run({"Connect=false", "Key=hello"}, {"server-key", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(installation.Calls(), "Create\nConnect\nDisconnect\n");
  installation.ExpectOldFileAlone();
}

TEST(AgentServerKey, KeepsTheOldFileWhenItCannotBeCopied) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result = installation.Run({"False=GetServerPublicKey", "Key=hello"},
                                                {"server-key", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 1);
  installation.ExpectOldFileAlone();
}

TEST(AgentServerKey, KeepsTheOldFileWithoutOne) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  EXPECT_EQ(installation.Run({}, {"server-key", "--out", installation.File().string()}).status, 1);
  EXPECT_EQ(installation.Run({"Codes=-1", "Key=k"}, {"server-key", "--out", installation.File().string()}).status, 1);
  installation.ExpectOldFileAlone();
}

TEST(AgentFingerprint, FailsWithItsExchange) {
  const FetchInstallation installation;
  const ProcessResult result = installation.Run({"Codes=-2147483644"}, {"fingerprint"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "fingerprint"), "fingerprint");
  EXPECT_EQ(installation.Run({"Codes=5"}, {"fingerprint"}).status, 0);
}

TEST(AgentRepeat, UsesOneConnectionAndTellsAFailure) {
  const FetchInstallation installation;
  const ProcessResult result =
      installation.Run({"Codes=0,-2147483644,0"}, {"update-status", "--status", "1", "--time", "1", "--repeat", "3"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(installation.Calls(), "Create\nUpdateStatus 1\nUpdateStatus 1\nUpdateStatus 1\n");
  const std::string good = "result: true\nerror-code: 0\nresult-code: 0\nerror-message: as scripted\n";
  EXPECT_EQ(result.output, good + "result: false\nerror-code: -2147483644\nresult-code: -2147483644\n" +
                               "error-message: as scripted\n" + good);
}

TEST(AgentRepeat, NeedsANumber) {
  for (const char* const number : {"0", "-1", "often"}) {
    EXPECT_EQ(FetchInstallation().Run({}, {"test-connection", "--repeat", number}).status, 2) << number;
  }
}

}  // namespace
}  // namespace sorvex::test
