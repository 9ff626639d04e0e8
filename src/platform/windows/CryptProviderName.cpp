#include "platform/windows/CryptProviderName.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

unsigned int SystemVersionNumber() {
  static const unsigned int number = [] {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    return GetVersionExW(&version) ? version.dwMajorVersion * 10 + version.dwMinorVersion : 0;
  }();
  return number;
}

std::wstring GetCryptProviderName(unsigned int systemVersionNumber) {
  std::wstring name = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
  if (systemVersionNumber < 52) name += L" (Prototype)";
  return name;
}

}  // namespace VaroCommunicationAPI::Platform
