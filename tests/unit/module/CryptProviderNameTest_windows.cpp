#include "platform/windows/CryptProviderName.h"

#include <gtest/gtest.h>

namespace VaroCommunicationAPI {
namespace {

TEST(SystemVersion, IsNewerThanThePrototypeOfTheProvider) { EXPECT_GT(Platform::SystemVersionNumber(), 52U); }

TEST(CryptProviderName, IsThatOfAPrototypeBeforeVersion52) {
  const std::wstring name = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
  EXPECT_EQ(Platform::GetCryptProviderName(51), name + L" (Prototype)");
  EXPECT_EQ(Platform::GetCryptProviderName(52), name);
  EXPECT_EQ(Platform::GetCryptProviderName(), name);
}

}  // namespace
}  // namespace VaroCommunicationAPI
