#include "RunFixture.h"

namespace sorvex::test {
namespace {

TEST(RunTest_posix, StateDirectoryIsForItsOwnerAlone) {
  const Installation installation;
  const RunningAgent agent(installation);
  ASSERT_TRUE(agent.WaitForLog("The agent starts"));
  EXPECT_EQ(std::filesystem::status(installation.Directory().Path() / "state").permissions(),
            std::filesystem::perms::owner_all);
}

}  // namespace
}  // namespace sorvex::test
