// What the agent does with answers over HTTPS, which its module treats as a success whatever their status.
#include "FetchCommandTest.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

class HttpsInstallation : public FetchInstallation {
 public:
  HttpsInstallation() { WriteOldFile(); }

  ProcessResult Run(std::vector<std::string> script, const std::vector<std::string>& command) const {
    script.insert(script.end(), {"ConfigurationServer=a", "ForceHTTPSConfigServerConnection=true"});
    return FetchInstallation::Run(script, command);
  }
};

class AgentHttpsFetch : public testing::TestWithParam<const char*> {
 protected:
  ProcessResult Fetch(const std::vector<std::string>& script) const {
    std::vector<std::string> command{GetParam(), "--out", m_installation.File().string()};
    if (command.front() == "fetch-patch") command.push_back("core");
    return m_installation.Run(script, command);
  }

  HttpsInstallation m_installation;
};

TEST_P(AgentHttpsFetch, ReplacesTheFileAndSaysThatNobodyComparedItsDigest) {
  const ProcessResult result = Fetch({"Codes=200", "Data=hello"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output,
            std::string("result: true\nerror-code: 0\nresult-code: 200\nerror-message: as scripted\nbytes: 5\nmd5: ") +
                helloDigest + "\nmd5-compared: no, the server sends none\n");
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(TemporaryDirectory::Read(m_installation.File()), "hello");
}

TEST_P(AgentHttpsFetch, KeepsTheOldFileWhateverOtherStatusThereIs) {
  for (const char* const status : {"201", "206", "302", "404", "500", "503"}) {
    const ProcessResult result = Fetch({std::string("Codes=") + status, "Data=hello"});
    EXPECT_EQ(result.status, 1) << status;
    EXPECT_EQ(Value(result.output, "result"), "false");
    EXPECT_EQ(Value(result.output, "result-code"), status);
    EXPECT_EQ(Value(result.output, "md5"), "(absent)");
    EXPECT_THAT(result.errors, HasSubstr(std::string("has answered with status ") + status));
    m_installation.ExpectOldFileAlone();
  }
}

TEST_P(AgentHttpsFetch, KeepsTheOldFileWhenUpdatesAreDisabled) {
  const ProcessResult result = Fetch({"Codes=204", "Data=hello"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output,
            "result: true\nerror-code: 0\nresult-code: 204\nerror-message: as scripted\nupdate: disabled\n");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentHttpsFetch, KeepsTheOldFileWhenAPageCame) {
  const ProcessResult result = Fetch({"Codes=200", "Data=<!DOCTYPE html>\n<html></html>"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "result"), "false");
  EXPECT_THAT(result.errors, HasSubstr("an HTML page"));
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentHttpsFetch, KeepsTheOldFileWhenNothingCame) {
  const ProcessResult result = Fetch({"Codes=200"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the server has sent nothing"));
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentHttpsFetch, KeepsTheOldFileWhenOnlyAPartCame) {
  const ProcessResult result = Fetch({"Codes=200", "ErrorCode=18", "Data=hello"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(Value(result.output, "error-code"), "18");
  m_installation.ExpectOldFileAlone();
}

TEST_P(AgentHttpsFetch, TellsOneReasonForALeftFile) {
  EXPECT_EQ(Fetch({"Codes=204", "Data=hello"}).errors, "");
  // The error code tells it.
  EXPECT_EQ(Fetch({"Codes=200", "ErrorCode=18", "Data=hello"}).errors, "");
  EXPECT_EQ(Fetch({"Codes=500", "ErrorCode=18", "Data=hello"}).errors, "");
  EXPECT_EQ(Fetch({"Codes=500", "Data=hello"}).errors,
            "sorvex-agent: the server has answered with status 500; the file is left as it is\n");
  EXPECT_EQ(Fetch({"Codes=200", "Data=<html></html>"}).errors,
            "sorvex-agent: the server has sent an HTML page: is the token right?; the file is left as it is\n");
}

INSTANTIATE_TEST_SUITE_P(Commands, AgentHttpsFetch, testing::Values("fetch-configuration", "fetch-patch"),
                         [](const testing::TestParamInfo<const char*>& test) {
                           return std::string(test.param) == "fetch-patch" ? "Patch" : "Configuration";
                         });

TEST(AgentHttpsFetchConfiguration, LooksAtBothAnswers) {
  const HttpsInstallation installation;
  const std::vector<std::string> command{"fetch-configuration", "--out", installation.File().string()};
  EXPECT_EQ(installation.Run({"Codes=200,404", "Data=hello"}, command).status, 1);
  const ProcessResult disabled = installation.Run({"Codes=200,204", "Data=hello"}, command);
  EXPECT_EQ(disabled.status, 0);
  EXPECT_EQ(Value(disabled.output, "update"), "disabled");
  installation.ExpectOldFileAlone();
}

TEST(AgentHttpsFetchPatch, AsksOnWhereThereIsNone) {
  const HttpsInstallation installation;
  const ProcessResult result = installation.Run(
      {"Codes=404,404,200", "Data=hello"}, {"fetch-patch", "--out", installation.File().string(), "a", "b", "c", "d"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(TemporaryDirectory::Read(installation.File()), "hello");
  EXPECT_EQ(installation.Calls(),
            "Create\nConnect\nRetrieveSoftwarePatch a\nRetrieveSoftwarePatch b\nRetrieveSoftwarePatch c\nDisconnect\n");
}

TEST(AgentHttpsServerKey, IsNoneAndNobodyIsAsked) {
  const HttpsInstallation installation;
  const ProcessResult result =
      installation.Run({"Codes=200", "Key=hello"}, {"server-key", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("there is no key over HTTPS"));
  EXPECT_EQ(installation.Calls(), "Create\n");
  installation.ExpectOldFileAlone();
}

TEST(AgentHttpsFingerprint, IsOneOnlyWithTheStatusOfASuccess) {
  const HttpsInstallation installation;
  EXPECT_EQ(installation.Run({"Codes=200", "Data=hello"}, {"fingerprint"}).status, 0);
  EXPECT_EQ(installation.Run({"Codes=200"}, {"fingerprint"}).status, 1);
  EXPECT_EQ(installation.Run({"Codes=200", "Data=<html><body></body></html>"}, {"fingerprint"}).status, 1);
  EXPECT_EQ(installation.Run({"Codes=404", "Data=hello"}, {"fingerprint"}).status, 1);
  EXPECT_EQ(installation.Run({"Codes=200", "Data=hello", "ErrorCode=18"}, {"fingerprint"}).status, 1);
  const ProcessResult disabled = installation.Run({"Codes=204"}, {"fingerprint"});
  EXPECT_EQ(disabled.status, 0);
  EXPECT_EQ(Value(disabled.output, "update-blocked"), "true");
}

TEST(AgentHttpsCommand, FailsWithTheStatusOfAnError) {
  const HttpsInstallation installation;
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"test-connection"}, std::vector<std::string>{"heartbeat"},
        std::vector<std::string>{"register", "--os-version", "12", "--agent-version", "7"},
        std::vector<std::string>{"update-status", "--status", "1", "--time", "1"}}) {
    EXPECT_EQ(installation.Run({"Codes=200"}, command).status, 0) << command.front();
    EXPECT_EQ(installation.Run({"Codes=204"}, command).status, 0) << command.front();
    for (const char* const status : {"404", "500"}) {
      const ProcessResult result = installation.Run({std::string("Codes=") + status}, command);
      EXPECT_EQ(result.status, 1) << command.front();
      EXPECT_EQ(Value(result.output, "result"), "false");
      EXPECT_EQ(Value(result.output, "result-code"), status);
    }
  }
}

TEST(AgentDirectTls, ComparesTheDigestWhateverTheResultCode) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result = installation.Run({"Codes=200", "Data=hello", "ConfigurationServer=a"},
                                                {"fetch-configuration", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("the MD5 of what came"));
  installation.ExpectOldFileAlone();
}

TEST(AgentDirectTls, TakesNoResultCodeForAStatus) {
  for (const char* const code : {"200", "204", "404"}) {
    const FetchInstallation installation;
    installation.WriteOldFile();
    const ProcessResult result = installation.Run(
        {std::string("Codes=") + code, "Data=hello", std::string("Digest=") + helloDigest, "ConfigurationServer=a"},
        {"fetch-configuration", "--out", installation.File().string()});
    EXPECT_EQ(result.status, 0) << code;
    EXPECT_EQ(TemporaryDirectory::Read(installation.File()), "hello") << code;
  }
}

TEST(AgentDirectTls, TellsNoStatusOfAFailure) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result = installation.Run({"Codes=-1", "ErrorCode=0", "ConfigurationServer=a"},
                                                {"fetch-configuration", "--out", installation.File().string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "");
}

}  // namespace
}  // namespace sorvex::test
