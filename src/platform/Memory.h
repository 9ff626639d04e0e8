// Memory that held a secret.
#pragma once

#include <cstddef>

namespace VaroCommunicationAPI::Platform {

/// Overwrites `size` bytes in a way that a compiler does not remove.
void WipeMemory(void* data, std::size_t size);

}  // namespace VaroCommunicationAPI::Platform
