#include "platform/Memory.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

void WipeMemory(void* data, std::size_t size) { SecureZeroMemory(data, size); }

}  // namespace VaroCommunicationAPI::Platform
