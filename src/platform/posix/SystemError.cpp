#include "platform/SystemError.h"

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

int LastSystemError() { return errno; }

}  // namespace VaroCommunicationAPI::Platform
