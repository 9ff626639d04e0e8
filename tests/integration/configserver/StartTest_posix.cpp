#include "ConfigServerFixture.h"

namespace sorvex::test {
namespace {

using std::filesystem::perms;

TEST(ConfigServerStart, KeyIsForItsOwnerAlone) {
  const ConfigServer server({}, ConfigServer::Certificate::OfItsOwn);
  const perms key = std::filesystem::status(server.Folder() / "key.pem").permissions();
  EXPECT_EQ(key, perms::owner_read | perms::owner_write);
  EXPECT_EQ(std::filesystem::status(server.Folder()).permissions(), perms::owner_all);
}

}  // namespace
}  // namespace sorvex::test
