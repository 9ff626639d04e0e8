// The module's exports, imports and loading flags.
#include "PortableExecutable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <cctype>
#include <fstream>
#include <string>
#include <vector>

namespace {

using sorvex::test::PortableExecutable;

const PortableExecutable& Module() {
  static const PortableExecutable module(COMMUNICATION_API_MODULE);
  return module;
}

std::string LowerCase(std::string text) {
  for (char& character : text) character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
  return text;
}

TEST(ModuleExports, EqualTheCommittedList) {
  std::ifstream file(EXPORT_LIST);
  std::vector<std::string> list;
  for (std::string name; file >> name;) list.push_back(name);
  ASSERT_FALSE(list.empty()) << "cannot read " EXPORT_LIST;
  EXPECT_EQ(Module().m_exports, list);
}

TEST(ModuleImports, AreOfTheSystemAceAndTheHostFrameworkOnly) {
  wchar_t directory[MAX_PATH];
  ASSERT_NE(GetSystemDirectoryW(directory, MAX_PATH), 0U);
  std::vector<std::string> others;
  for (const std::string& name : Module().m_imports) {
    if (!std::filesystem::exists(std::filesystem::path(directory) / name)) others.push_back(LowerCase(name));
  }
  EXPECT_THAT(others, testing::UnorderedElementsAre("libace.dll", "sorvexcommon.dll"));
}

TEST(ModuleFile, IsLoadedAnywhereInTheAddressSpaceAndItsDataNeverRun) {
  constexpr unsigned int highEntropy = 0x20;
  constexpr unsigned int dynamicBase = 0x40;
  constexpr unsigned int noExecution = 0x100;
  EXPECT_EQ(Module().m_uDllCharacteristics & (highEntropy | dynamicBase | noExecution),
            highEntropy | dynamicBase | noExecution);
}

TEST(ModuleFile, HoldsNoTimeOfItsMaking) { EXPECT_EQ(Module().m_uTimestamp, 0U); }

TEST(ModuleFile, TellsItsVersion) {
  const std::wstring path = std::filesystem::path(COMMUNICATION_API_MODULE).wstring();
  std::vector<char> resource(GetFileVersionInfoSizeW(path.c_str(), nullptr));
  ASSERT_FALSE(resource.empty());
  ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()));
  void* value = nullptr;
  UINT size = 0;
  ASSERT_TRUE(VerQueryValueW(resource.data(), L"\\", &value, &size));
  const auto* const version = static_cast<const VS_FIXEDFILEINFO*>(value);
  EXPECT_EQ(version->dwFileVersionMS, 0x00070002U);
  EXPECT_EQ(version->dwFileVersionLS, 0x00050000U);
  ASSERT_TRUE(VerQueryValueW(resource.data(), L"\\StringFileInfo\\040904b0\\FileVersion", &value, &size));
  EXPECT_EQ(std::wstring(static_cast<const wchar_t*>(value)), L"7.2.5");
}

}  // namespace
