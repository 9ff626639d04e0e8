// The callers' numbers are this system's own; ACE stores them in errno.
#include "platform/SocketErrors.h"

#include <host/SystemError.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

SocketError ToCallerError(int systemError) { return SocketError(systemError); }

int ToSystemError(SocketError error) { return error.Number(); }

SocketError LastSocketError() { return ToCallerError(errno); }

std::string SocketError::SystemText() const {
  // The C run time's number, for which the system's table has another meaning.
  if (*this == ErrorWaitTimeout) return "The wait timed out";
  return WindowsAgentCommon::GetLastErrorText(m_number);
}

}  // namespace VaroCommunicationAPI::Platform
