#include "platform/SystemError.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

int LastSystemError() { return static_cast<int>(GetLastError()); }

}  // namespace VaroCommunicationAPI::Platform
