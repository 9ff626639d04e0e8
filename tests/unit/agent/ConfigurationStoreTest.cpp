#include <ConfigurationStore.h>
#include <platform/InstanceLock.h>

#include "support/TemporaryDirectory.h"

#include <settings/Settings.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sorvex::test {
namespace {

using agent::ConfigurationStore;
using agent::InstanceLock;

class ConfigurationStoreTest : public testing::Test {
 protected:
  std::string File(const char* name) const { return TemporaryDirectory::Read(m_directory.Path() / name); }
  bool Has(const char* name) const { return std::filesystem::exists(m_directory.Path() / name); }

  TemporaryDirectory m_directory;
  ConfigurationStore m_store{m_directory.Path()};
};

TEST_F(ConfigurationStoreTest, BeginsWithNothing) {
  EXPECT_EQ(m_store.Read(), std::nullopt);
  EXPECT_EQ(m_store.ReadDigest(), "");
}

TEST_F(ConfigurationStoreTest, KeepsBoth) {
  m_store.Store("old", "digest of old");
  m_store.Store("new", "digest of new");
  EXPECT_EQ(File("AgentConfig.xml"), "new");
  EXPECT_EQ(File("AgentConfig.md5"), "digest of new");
  EXPECT_EQ(m_store.Read(), "new");
  EXPECT_EQ(m_store.ReadDigest(), "digest of new");
}

TEST_F(ConfigurationStoreTest, DigestHasNoLineEnds) {
  m_directory.Write("AgentConfig.md5", "\r\nabc\r\n");
  EXPECT_EQ(m_store.ReadDigest(), "abc");
  m_directory.Write("AgentConfig.md5", "\r\n");
  EXPECT_EQ(m_store.ReadDigest(), "");
}

TEST_F(ConfigurationStoreTest, DigestIsWhatTheModuleReadsOfItsFile) {
  m_directory.Write("AgentConfig.md5", std::string(128, 'a') + "b");
  EXPECT_EQ(m_store.ReadDigest(), std::string(128, 'a'));
  m_directory.Write("AgentConfig.md5", std::string("abc\0def", 7));
  EXPECT_EQ(m_store.ReadDigest(), "abc");
}

TEST_F(ConfigurationStoreTest, NoDigestStaysBesideAnotherConfiguration) {
  m_store.Store("old", "digest of old");
  // A file that cannot be replaced fails between the two.
  std::filesystem::remove(m_directory.Path() / "AgentConfig.xml");
  std::filesystem::create_directories(m_directory.Path() / "AgentConfig.xml" / "in the way");
  EXPECT_THROW(m_store.Store("new", "digest of new"), std::system_error);
  EXPECT_FALSE(Has("AgentConfig.md5"));
}

TEST_F(ConfigurationStoreTest, LeavesNoOtherFiles) {
  m_store.Store("content", "digest");
  m_store.ForgetDigest();
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_directory.Path()), {}), 1);
}

TEST_F(ConfigurationStoreTest, ReadsNoMoreThanAConfigurationMayHave) {
  m_directory.Write("AgentConfig.xml", std::string(settings::maxSettingsBytes + 100, 'x'));
  EXPECT_EQ(m_store.Read()->size(), settings::maxSettingsBytes + 1);
}

TEST(InstanceLockTest, IsHeldUntilItIsGone) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Path() / "lock";
  EXPECT_FALSE(InstanceLock::IsHeld(file));
  {
    const InstanceLock lock(file);
    EXPECT_TRUE(InstanceLock::IsHeld(file));
    EXPECT_THROW(InstanceLock{file}, std::runtime_error);
  }
  EXPECT_FALSE(InstanceLock::IsHeld(file));
  const InstanceLock again(file);
}

TEST(InstanceLockTest, FileThatCannotBeMadeIsNamed) {
  const TemporaryDirectory directory;
  try {
    const InstanceLock lock(directory.Path() / "missing" / "lock");
    FAIL();
  } catch (const std::system_error& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("missing"));
  }
}

}  // namespace
}  // namespace sorvex::test
