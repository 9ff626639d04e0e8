// The agent's key pair and the secured token, as an installer makes them.
#include "AgentFixture.h"

#include "unit/module/ApplicationKey.h"

namespace sorvex::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* container = "sorvex-agent-test";
constexpr const char* token = "8a2b4c6d-0e1f-4a3b-9c5d-7e8f9a0b1c2d";

TEST(AgentKey, IsShownAsTheAgentSendsIt) {
  const Installation installation;
  const ContainerRemoval removal(container);
  const ProcessResult made = installation.Run({"key", "create", "--container", container});
  ASSERT_EQ(made.status, 0) << made.errors;
  const std::string key = Value(made.output, "public-key");
  // 22 bytes of header, and an RSAPublicKey of 1024 bits with the usual exponent.
  EXPECT_EQ(key.size(), 2u * (22 + 140));
  EXPECT_EQ(key.substr(0, 58), "30819f300d06092a864886f70d010101050003818d0030818902818100");
  EXPECT_EQ(key.substr(key.size() - 10), "0203010001");
  EXPECT_EQ(Value(made.output, "md5").size(), 32u);
  EXPECT_EQ(installation.Run({"key", "show", "--container", container}).output, made.output);
}

TEST(AgentKey, IsNotReplacedUnlessForced) {
  const Installation installation;
  const ContainerRemoval removal(container);
  const std::string first = installation.Run({"key", "create", "--container", container}).output;
  const ProcessResult refused = installation.Run({"key", "create", "--container", container});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output, "");
  EXPECT_THAT(refused.errors, HasSubstr("--force"));
  EXPECT_EQ(installation.Run({"key", "show", "--container", container}).output, first);

  const ProcessResult forced = installation.Run({"key", "create", "--force", "--container", container});
  EXPECT_EQ(forced.status, 0);
  EXPECT_NE(forced.output, first);
  EXPECT_EQ(installation.Run({"key", "show", "--container", container}).output, forced.output);
}

TEST(AgentKey, IsNotShownWhenThereIsNone) {
  const ProcessResult result = Installation().Run({"key", "show", "--container", "sorvex-agent-test-none"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("sorvex-agent: "));
}

TEST(AgentKey, CommandNeedsAVerb) {
  EXPECT_EQ(Installation().Run({"key"}).status, 2);
  EXPECT_EQ(Installation().Run({"token"}).status, 2);
  EXPECT_EQ(Installation().Run({"token", "protect"}).status, 2);
}

TEST(AgentToken, IsProtectedForTheModule) {
  const ContainerRemoval removal;
  for (const bool fromInput : {false, true}) {
    const Installation installation;
    const ProcessResult result = fromInput ? installation.Run({"token", "protect", "-"}, std::string(token) + "\r\n")
                                           : installation.Run({"token", "protect", token});
    ASSERT_EQ(result.status, 0) << result.errors;
    const std::string secured = Value(result.output, "secured-token");
    EXPECT_EQ(secured.size(), 172u);
    EXPECT_THAT(result.output + result.errors, Not(HasSubstr(token)));

    installation.Directory().Write("install_config.txt", "ApplicationToken=" + secured + "\r\n");
    const ProcessResult shown = installation.Run({"parameter", "ApplicationToken"});
    EXPECT_EQ(shown.output, std::string("ApplicationToken: ") + token + "\n") << shown.errors;
  }
}

TEST(AgentToken, IsProtectedWithTheKeyThatIsThere) {
  const ContainerRemoval removal;
  const Installation installation;
  const std::string first = Value(installation.Run({"token", "protect", token}).output, "secured-token");
  installation.Run({"token", "protect", "another-token"});
  installation.Directory().Write("install_config.txt", "ApplicationToken=" + first + "\n");
  EXPECT_EQ(installation.Run({"parameter", "ApplicationToken"}).output,
            std::string("ApplicationToken: ") + token + "\n");
}

TEST(AgentToken, ThatFitsNoKeyIsRefused) {
  const ContainerRemoval removal;
  const Installation installation;
  EXPECT_EQ(installation.Run({"token", "protect", std::string(86, 't')}).status, 0);
  for (const std::string& tooLong : {std::string(87, 't'), std::string(5000, 't')}) {
    const ProcessResult result = installation.Run({"token", "protect", "-"}, tooLong);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, Not(HasSubstr("ttt")));
  }
  EXPECT_EQ(installation.Run({"token", "protect", "-"}, "\n").status, 1);
}

}  // namespace
}  // namespace sorvex::test
