// What the server does without a free descriptor.
#include "ConfigServerFixture.h"
#include "support/WaitUntil.h"

#include <sys/resource.h>

namespace sorvex::test {
namespace {

TEST(ConfigServerBounds, ConnectionsBeyondTheSystemsLimitWaitUntilOthersEnd) {
  ConfigServer server;
  // It has about ten open.
  constexpr int highest = 24;
  const rlimit limit{highest, highest};
  ASSERT_EQ(prlimit(static_cast<pid_t>(server.Process().Id()), RLIMIT_NOFILE, &limit, nullptr), 0);
  std::vector<std::unique_ptr<TlsClient>> held;
  for (int i = 0; i < 30; ++i) held.push_back(std::make_unique<TlsClient>(server.Port(), TlsClient::Start::Connect));
  // Until no descriptor is free.
  const std::filesystem::path descriptors = "/proc/" + std::to_string(server.Process().Id()) + "/fd";
  for (int i = 0; i < highest; ++i) {
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::is_symlink(descriptors / std::to_string(i)); })) << i;
  }
  held.clear();
  AdmittedClient client(server);
  EXPECT_TRUE(client.Ask(StatusRequest("2.0"), ResultResponse(3, "2.0", 0)));
}

}  // namespace
}  // namespace sorvex::test
