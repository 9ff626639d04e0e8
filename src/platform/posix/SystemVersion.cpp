#include "platform/SystemVersion.h"

namespace VaroCommunicationAPI::Platform {

unsigned int SystemVersionNumber() { return 100; }

}  // namespace VaroCommunicationAPI::Platform
