// The name of the CryptoAPI provider of the agent's key pairs.
#pragma once

#include "platform/SystemVersion.h"

#include <string>

namespace VaroCommunicationAPI::Platform {

/// The provider's name on systems older than version 5.2 says that it is a prototype.
inline std::wstring GetCryptProviderName(unsigned int systemVersionNumber = SystemVersionNumber()) {
  std::wstring name = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
  if (systemVersionNumber < 52) name += L" (Prototype)";
  return name;
}

}  // namespace VaroCommunicationAPI::Platform
