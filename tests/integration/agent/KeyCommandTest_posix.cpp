// Key containers are files here.
#include "AgentFixture.h"

#include <openssl/pem.h>

namespace sorvex::test {
namespace {

using std::filesystem::perms;
using testing::HasSubstr;

TEST(AgentKeyFile, IsForItsOwnerAlone) {
  const Installation installation;
  const std::filesystem::path keys = installation.Directory().Path() / "keys";
  ASSERT_EQ(installation.Run({"key", "create"}).status, 0);
  EXPECT_EQ(std::filesystem::status(keys).permissions(), perms::owner_all);
  EXPECT_EQ(std::filesystem::status(keys / "default.pem").permissions(), perms::owner_read | perms::owner_write);
}

TEST(AgentKeyFile, HoldsThePublicKeyThatIsShown) {
  const Installation installation;
  const ProcessResult result = installation.Run({"key", "create"});
  FILE* const file = std::fopen((installation.Directory().Path() / "keys/default.pem").c_str(), "r");
  ASSERT_NE(file, nullptr);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(PEM_read_PrivateKey(file, nullptr, nullptr, nullptr),
                                                           &EVP_PKEY_free);
  std::fclose(file);
  // For 1024 bits the header is correct, so the whole is a valid encoding of the key.
  unsigned char* encoded = nullptr;
  const int size = i2d_PUBKEY(key.get(), &encoded);
  std::string hex;
  for (int i = 0; i < size; ++i) {
    hex += "0123456789abcdef"[encoded[i] >> 4];
    hex += "0123456789abcdef"[encoded[i] & 15];
  }
  OPENSSL_free(encoded);
  EXPECT_EQ(Value(result.output, "public-key"), hex);
}

TEST(AgentKeyFile, ThatOthersCanReadIsRefused) {
  const Installation installation;
  installation.Run({"key", "create"});
  std::filesystem::permissions(installation.Directory().Path() / "keys/default.pem", perms::group_read,
                               std::filesystem::perm_options::add);
  const ProcessResult result = installation.Run({"key", "show"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr("can be read by others"));
}

TEST(AgentKeyFile, StaysInItsFolder) {
  const Installation installation;
  const ProcessResult result = installation.Run({"key", "create", "--container", "../escape"});
  EXPECT_EQ(result.status, 1);
  EXPECT_FALSE(std::filesystem::exists(installation.Directory().Path() / "escape.pem"));
}

}  // namespace
}  // namespace sorvex::test
