// The system's own error number.
#pragma once

namespace VaroCommunicationAPI::Platform {

/// The calling thread's last error, as the system numbers it.
int LastSystemError();

}  // namespace VaroCommunicationAPI::Platform
