#include "AgentFixture.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;

TEST(AgentInfo, PrintsStandAloneWithoutServer) {
  const ProcessResult result = Installation().Run({"info"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "version: 7.2.5\nmode: stand-alone\nstand-alone-mode: true\ninitialize: 1\n");
}

TEST(AgentInfo, PrintsStandAloneWithEmptyServer) {
  EXPECT_EQ(Value(Installation("ApplicationID=7\nConfigurationServer=\n").Run({"info"}).output, "mode"), "stand-alone");
}

TEST(AgentInfo, PrintsDirectTlsWithServer) {
  const ProcessResult result = Installation("ConfigurationServer=127.0.0.1\n").Run({"info"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(Value(result.output, "mode"), "direct-tls");
  EXPECT_EQ(Value(result.output, "stand-alone-mode"), "false");
}

TEST(AgentInfo, PrintsHttpsWhenForced) {
  const Installation installation("ConfigurationServer=127.0.0.1\nForceHTTPSConfigServerConnection=Yes\n");
  EXPECT_EQ(Value(installation.Run({"info"}).output, "mode"), "https");
}

TEST(AgentInfo, IsPrintedWhenInitializeFails) {
  const ProcessResult result = Installation("").Run({"info"});
  EXPECT_EQ(result.status, 3);
  // Without an installation there is no mode.
  EXPECT_EQ(result.output, "version: 7.2.5\ninitialize: 3\n");
}

TEST(AgentInfo, OtherCommandsEndWhenInitializeFails) {
  const ProcessResult result = Installation("").Run({"parameter", "ApplicationID"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("Initialize returned 3"));
}

TEST(AgentParameter, PrintsEachValue) {
  const ProcessResult result = Installation("A=1\nB=two words\n").Run({"parameter", "B", "A"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "B: two words\nA: 1\n");
}

TEST(AgentParameter, NamesTheOneThatIsMissing) {
  const ProcessResult result = Installation("A=1\n").Run({"parameter", "Z", "A"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "A: 1\n");
  EXPECT_THAT(result.errors, HasSubstr("there is no parameter Z"));
}

TEST(AgentParameter, MayBeNamedLikeACommand) {
  EXPECT_EQ(Installation("info=1\n").Run({"parameter", "info"}).output, "info: 1\n");
}

TEST(AgentParameter, KeepsAValueOnOneLine) {
  EXPECT_EQ(Installation("A=x\x1b[2J\ty\n").Run({"parameter", "A"}).output, "A: x\\x1B[2J\\ty\n");
}

}  // namespace
}  // namespace sorvex::test
