// The callers' numbers are this system's own; ACE stores them in errno.
#include "platform/SocketErrors.h"

#include <host/SystemError.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

int ToCallerError(int systemError) { return systemError; }

int ToSystemError(int callerError) { return callerError; }

int LastSocketError() { return errno; }

std::string SocketErrorText(int callerError) {
  // The C run time's number, which has another meaning in the system's table.
  if (callerError == ErrorWaitTimeout) return "The wait timed out";
  return WindowsAgentCommon::GetLastErrorText(callerError);
}

}  // namespace VaroCommunicationAPI::Platform
