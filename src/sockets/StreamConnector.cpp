#include "sockets/StreamConnector.h"

#include "platform/SocketErrors.h"

#include <ace/ACE.h>
#include <ace/SOCK_Connector.h>

#include <cerrno>

namespace VaroCommunicationAPI {

namespace {

/// How long a wait lasts before the caller is asked whether to go on.
const ACE_Time_Value waitSlice(0, 100'000);

/// Waits for a connection under way. Returns 0 or the callers' error number.
int CompleteConnection(ACE_HANDLE handle, const std::function<bool()>& isInterrupted) {
  for (;;) {
    if (ACE::handle_timed_complete(handle, &waitSlice) != ACE_INVALID_HANDLE) return 0;
    if (const int error = Platform::LastSocketError(); error != Platform::ErrorWaitTimeout) return error;
    if (isInterrupted()) return Platform::ErrorInterrupted;
  }
}

}  // namespace

int ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses,
                  const std::function<bool()>& isInterrupted) {
  ACE_SOCK_Connector connector;
  const ACE_Time_Value startOnly = ACE_Time_Value::zero;
  int error = Platform::ErrorHostNotFound;
  for (const ACE_INET_Addr& address : addresses) {
    error = 0;
    if (connector.connect(stream, address, &startOnly) == -1) {
      error = Platform::LastSocketError();
      if (error == Platform::ErrorWouldBlock || error == Platform::ErrorWaitTimeout) {
        error = CompleteConnection(stream.get_handle(), isInterrupted);
      }
    }
    if (error == 0 && stream.enable(ACE_NONBLOCK) == -1) error = Platform::LastSocketError();
    if (error == 0) break;
    stream.close();
    if (error == Platform::ErrorInterrupted) break;
  }
  return error;
}

std::shared_ptr<ACE_SOCK_Stream> OwnStream() {
  return {new ACE_SOCK_Stream, [](ACE_SOCK_Stream* stream) {
            stream->close();
            delete stream;
          }};
}

bool WaitUntilWritable(ACE_HANDLE handle, const std::function<bool()>& isInterrupted) {
  // An error condition counts as writable: the write then tells which.
  while (ACE::handle_write_ready(handle, &waitSlice) == -1) {
    if (Platform::LastSocketError() != Platform::ErrorWaitTimeout &&
        Platform::LastSocketError() != Platform::ErrorInterrupted)
      return true;
    if (isInterrupted()) return false;
  }
  return true;
}

}  // namespace VaroCommunicationAPI
