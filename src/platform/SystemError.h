// The system's own error number.
#pragma once

namespace VaroCommunicationAPI::Platform {

/// The calling thread's last error, with the system's number.
int LastSystemError();

}  // namespace VaroCommunicationAPI::Platform
