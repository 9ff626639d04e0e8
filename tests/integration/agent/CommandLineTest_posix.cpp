// The agent's command line where it takes a device of a POSIX system to show what happens.
#include "AgentFixture.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

TEST(AgentCommandLine, OutputThatCannotBeWrittenIsAFailure) {
  const Installation installation;
  const std::string command = std::string("exec \"$0\" --config-dir \"$1\" parameter ApplicationID >/dev/full");
  const ProcessResult result =
      RunProcess("/bin/sh", {"-c", command, SORVEX_AGENT_PROGRAM, installation.Directory().Path().string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("standard output cannot be written"));
}

}  // namespace
}  // namespace sorvex::test
