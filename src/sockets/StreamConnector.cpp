#include "sockets/StreamConnector.h"

#include "platform/SocketErrors.h"
#include "platform/SocketIo.h"

#include <ace/ACE.h>
#include <ace/SOCK_Connector.h>
#include <ace/os_include/netinet/os_tcp.h>

#include <algorithm>
#include <cstdint>

namespace VaroCommunicationAPI {

namespace {

/// How long a wait lasts before the caller is asked whether to go on.
const ACE_Time_Value waitSlice(0, 100'000);

/// The callers' number of what has just failed. Not every failure leaves one, and 0 would be taken for success.
int FailureNumber() {
  const int error = Platform::LastSocketError();
  return error != 0 ? error : Platform::ErrorNotConnected;
}

/// Starts a connection. Returns 0 when it stands at once, 10035 while it is under way, or another error number.
int StartConnection(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address, const std::function<bool()>& isInterrupted) {
  ACE_SOCK_Connector connector;
  const ACE_Time_Value startOnly = ACE_Time_Value::zero;
  for (;;) {
    stream.set_handle(Platform::OpenSocket(address.get_type(), SOCK_STREAM));
    if (stream.get_handle() == ACE_INVALID_HANDLE) return FailureNumber();
    if (connector.connect(stream, address, &startOnly) == 0) return 0;
    const int error = FailureNumber();
    if (error == Platform::ErrorWaitTimeout) return Platform::ErrorWouldBlock;
    // After a signal the connector has closed the socket.
    if (error != Platform::ErrorInterrupted || isInterrupted()) return error;
  }
}

/// Waits for a connection under way. Returns 0 or the callers' error number.
int CompleteConnection(ACE_HANDLE handle, const std::function<bool()>& isInterrupted) {
  for (;;) {
    if (ACE::handle_timed_complete(handle, &waitSlice) != ACE_INVALID_HANDLE) return 0;
    const int error = FailureNumber();
    if (error != Platform::ErrorWaitTimeout && error != Platform::ErrorInterrupted) return error;
    if (isInterrupted()) return Platform::ErrorInterrupted;
  }
}

}  // namespace

int ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses,
                  const std::function<bool()>& isInterrupted) {
  int error = Platform::ErrorHostNotFound;
  for (const ACE_INET_Addr& address : addresses) {
    error = StartConnection(stream, address, isInterrupted);
    if (error == Platform::ErrorWouldBlock) error = CompleteConnection(stream.get_handle(), isInterrupted);
    if (error == 0 && stream.enable(ACE_NONBLOCK) == -1) error = FailureNumber();
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

void SendWithoutDelay(ACE_HANDLE handle) {
  int on = 1;
  ACE_SOCK_Stream stream(handle);
  // A system that refuses is only slower.
  stream.set_option(ACE_IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int WaitUntilReady(ACE_HANDLE handle, Readiness readiness, const std::function<bool()>& isInterrupted,
                   std::optional<std::chrono::steady_clock::time_point> deadline) {
  const bool isRead = readiness != Readiness::Writable;
  const bool isWrite = readiness != Readiness::Readable;
  for (;;) {
    ACE_Time_Value wait = waitSlice;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::microseconds>(*deadline - std::chrono::steady_clock::now());
      if (left.count() < waitSlice.usec())
        wait.set(0, static_cast<suseconds_t>(std::max<std::int64_t>(left.count(), 0)));
    }
    if (ACE::handle_ready(handle, &wait, isRead, isWrite, false) > 0) return 0;
    const int error = Platform::LastSocketError();
    if (error != Platform::ErrorWaitTimeout && error != Platform::ErrorInterrupted) return 0;
    if (isInterrupted()) return Platform::ErrorInterrupted;
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return Platform::ErrorWaitTimeout;
  }
}

int WaitForRoom(ACE_HANDLE handle, const std::function<int()>& peerState, const std::function<bool()>& isInterrupted) {
  const int state = peerState();
  return state != 0 ? state : WaitUntilReady(handle, Readiness::Either, isInterrupted);
}

void AwaitDelivery(ACE_HANDLE handle, const std::function<int()>& peerState, const std::function<bool()>& isTalking,
                   const std::function<bool()>& isInterrupted) {
  // The system tells nobody when the last byte is acknowledged: it has to be asked.
  constexpr std::chrono::milliseconds askEvery{5};
  while (!isInterrupted() && peerState() == 0 && (isTalking() || !Platform::HasDeliveredAll(handle))) {
    WaitUntilReady(
        handle, Readiness::Readable, [] { return false; }, std::chrono::steady_clock::now() + askEvery);
  }
}

}  // namespace VaroCommunicationAPI
