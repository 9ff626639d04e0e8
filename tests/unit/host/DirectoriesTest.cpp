#include <SorvexHost/Directories.h>
#include <host/Paths.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

namespace WindowsAgentCommon {
namespace {

constexpr auto SEPARATOR = static_cast<wchar_t>(std::filesystem::path::preferred_separator);

/// Restores both directories, which are the process's.
class Directories : public testing::Test {
 protected:
  ~Directories() override {
    SetConfigPath(m_strConfig);
    SetPatchPath(L"");
  }

  const std::wstring m_strConfig = GetConfigPath();
  const std::wstring m_strPatch = GetPatchPath();
};

TEST_F(Directories, DefaultEndsWithTheAgentsName) {
  const std::wstring name = std::filesystem::path(m_strConfig).filename().wstring();
  EXPECT_TRUE(name == L"sorvex" || name == L"Sorvex") << std::filesystem::path(name);
  EXPECT_TRUE(std::filesystem::path(m_strConfig).is_absolute());
}

TEST_F(Directories, DefaultPatchDirectoryIsBelowTheConfiguration) {
  EXPECT_EQ(m_strPatch, m_strConfig + SEPARATOR + L"patch");
}

TEST_F(Directories, ReturnWhatWasSet) {
  SetConfigPath(L"/some/where \x00E4");
  SetPatchPath(L"/else where");
  EXPECT_EQ(GetConfigPath(), L"/some/where \x00E4");
  EXPECT_EQ(GetPatchPath(), L"/else where");
}

TEST_F(Directories, PatchDirectoryMovesWithTheConfigurationUntilItIsSet) {
  SetConfigPath(L"/moved");
  EXPECT_EQ(GetPatchPath(), std::wstring(L"/moved") + SEPARATOR + L"patch");
  SetPatchPath(L"/patches");
  SetConfigPath(L"/moved again");
  EXPECT_EQ(GetPatchPath(), L"/patches");
  SetPatchPath(L"");
  EXPECT_EQ(GetPatchPath(), std::wstring(L"/moved again") + SEPARATOR + L"patch");
}

TEST_F(Directories, SeparatorsAtTheEndAreRemoved) {
  SetConfigPath(L"/config/");
  SetPatchPath(std::wstring(L"/patch//") + SEPARATOR);
  EXPECT_EQ(GetConfigPath(), L"/config");
  EXPECT_EQ(GetPatchPath(), L"/patch");
}

TEST_F(Directories, MayBeReadWhileTheyAreSet) {
  SetConfigPath(L"/first directory of the test");
  std::thread writer([] {
    for (int i = 0; i < 1000; ++i)
      SetConfigPath(i % 2 == 0 ? L"/second directory of the test" : L"/first directory of the test");
  });
  bool whole = true;
  for (int i = 0; i < 1000; ++i) {
    const std::wstring read = GetConfigPath();
    whole = whole && (read == L"/first directory of the test" || read == L"/second directory of the test");
  }
  writer.join();
  EXPECT_TRUE(whole);
}

}  // namespace
}  // namespace WindowsAgentCommon
