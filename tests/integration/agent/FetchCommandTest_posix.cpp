#include "FetchCommandTest.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

/// The command line as typed in a shell.
std::string Quoted(const std::vector<std::string>& arguments) {
  std::string line = "'" SORVEX_AGENT_PROGRAM "'";
  for (const std::string& argument : arguments) line += " '" + argument + "'";
  return line;
}

TEST(AgentFetchFile, KeepsTheOldOneWhenTheNewCannotBeWritten) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  // Files are limited to 512 bytes.
  const std::string limit = "ulimit -f 1; trap '' XFSZ; exec ";
  const ProcessResult result = RunProcess(
      "/bin/bash",
      {"-c", limit + Quoted(installation.Arguments({"Data=" + std::string(100000, 'x'), "Digest=d"},
                                                   {"fetch-configuration", "--out", installation.File().string()}))});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr(installation.File().string() + ": File too large; the file is left as it is\n"));
  installation.ExpectOldFileAlone();
}

TEST(AgentFetchFile, ShowsProgressOnATerminal) {
  const FetchInstallation installation;
  installation.WriteOldFile();
  const ProcessResult result =
      RunProcess("/usr/bin/script",
                 {"-qec",
                  Quoted(installation.Arguments({"Data=hello", std::string("Digest=") + helloDigest},
                                                {"fetch-configuration", "--out", installation.File().string()})),
                  "/dev/null"});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr("0 s, 5 bytes written"));
}

}  // namespace
}  // namespace sorvex::test
