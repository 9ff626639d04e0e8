// The name of the CryptoAPI provider of the agent's key pairs.
#pragma once

#include <string>

namespace VaroCommunicationAPI::Platform {

/// The system's version, major times ten plus minor (Windows 7 is 61). Computed once.
unsigned int SystemVersionNumber();

/// The provider's name on systems older than version 5.2 says that it is a prototype.
std::wstring GetCryptProviderName(unsigned int systemVersionNumber = SystemVersionNumber());

}  // namespace VaroCommunicationAPI::Platform
