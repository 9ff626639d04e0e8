#include "platform/AtomicFile.h"

#include "support/TemporaryDirectory.h"

#include <host/Text.h>

#include <gtest/gtest.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <memory>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::Platform::WriteFileAtomically;

/// Everybody's rights to the file, by its own rules.
ACCESS_MASK RightsOfEverybody(const std::wstring& path) {
  PACL rules = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  EXPECT_EQ(GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &rules,
                                  nullptr, &descriptor),
            static_cast<DWORD>(ERROR_SUCCESS));
  const std::unique_ptr<void, decltype(&LocalFree)> owned(descriptor, &LocalFree);
  PSID everybody = nullptr;
  EXPECT_TRUE(ConvertStringSidToSidW(L"S-1-1-0", &everybody));
  const std::unique_ptr<void, decltype(&LocalFree)> ownedSid(everybody, &LocalFree);
  ACCESS_MASK rights = 0;
  for (DWORD index = 0; rules != nullptr && index < rules->AceCount; ++index) {
    ACCESS_ALLOWED_ACE* rule = nullptr;
    if (GetAce(rules, index, reinterpret_cast<void**>(&rule)) && rule->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
        EqualSid(&rule->SidStart, everybody)) {
      rights |= rule->Mask;
    }
  }
  return rights;
}

/// Wine stores only those of a file's rules that a mode can hold; files do not inherit a directory's rules there.
TEST(AtomicFileRules, LetEverybodyReadAndNobodyElseWrite) {
  const TemporaryDirectory directory;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;OICI;FA;;;WD)", SDDL_REVISION_1, &descriptor,
                                                                   nullptr));
  const std::unique_ptr<void, decltype(&LocalFree)> owned(descriptor, &LocalFree);
  ASSERT_TRUE(SetFileSecurityW(directory.Wide().c_str(), DACL_SECURITY_INFORMATION, descriptor));
  const std::wstring file = directory.Wide() + L"\\file";
  ASSERT_EQ(WriteFileAtomically(file, "x"), 0);
  const ACCESS_MASK rights = RightsOfEverybody(file);
  EXPECT_NE(rights & FILE_READ_DATA, 0U);
  EXPECT_EQ(rights & (FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE | WRITE_DAC | WRITE_OWNER), 0U);
}

}  // namespace
}  // namespace sorvex::test
