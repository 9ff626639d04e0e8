#include "sockets/SocketStream.h"

#include <ace/ACE.h>
#include <ace/SOCK_Connector.h>
#include <ace/os_include/netinet/os_tcp.h>

#include <algorithm>
#include <cstdint>

namespace VaroCommunicationAPI {

namespace {

/// How long a wait lasts before the caller is asked whether to continue.
const ACE_Time_Value waitSlice(0, 100'000);

/// The last error. Some failures leave none, and 0 would mean success.
SocketError FailureNumber() {
  const SocketError error = Platform::LastSocketError();
  return error ? error : Platform::ErrorNotConnected;
}

/// Starts a connection. Returns no error if it is established at once, 10035 while it is in progress.
SocketError StartConnection(ACE_SOCK_Stream& stream, const ACE_INET_Addr& address, const IsInterrupted& isInterrupted) {
  ACE_SOCK_Connector connector;
  const ACE_Time_Value startOnly = ACE_Time_Value::zero;
  for (;;) {
    stream.set_handle(Platform::OpenSocket(address.get_type(), SOCK_STREAM));
    if (stream.get_handle() == ACE_INVALID_HANDLE) return FailureNumber();
    if (connector.connect(stream, address, &startOnly) == 0) return {};
    const SocketError error = FailureNumber();
    if (error == Platform::ErrorWaitTimeout) return Platform::ErrorWouldBlock;
    // After a signal the connector has closed the socket.
    if (error != Platform::ErrorInterrupted || isInterrupted()) return error;
  }
}

/// Waits for a connection in progress.
SocketError CompleteConnection(ACE_HANDLE handle, const IsInterrupted& isInterrupted) {
  for (;;) {
    if (ACE::handle_timed_complete(handle, &waitSlice) != ACE_INVALID_HANDLE) return {};
    const SocketError error = FailureNumber();
    if (error != Platform::ErrorWaitTimeout && error != Platform::ErrorInterrupted) return error;
    if (isInterrupted()) return Platform::ErrorInterrupted;
  }
}

void SetUp(ACE_SOCK_Stream& stream, StreamUse use) {
  if (use == StreamUse::Delivery) return Platform::KeepBacklogSmall(stream.get_handle());
  // Otherwise small writes followed by a read would wait for the peer's delayed acknowledgement. A system that refuses
  // the option is only slower.
  int on = 1;
  stream.set_option(ACE_IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

SocketError ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses, StreamUse use,
                          const IsInterrupted& isInterrupted) {
  SocketError error = Platform::ErrorHostNotFound;
  for (const ACE_INET_Addr& address : addresses) {
    error = StartConnection(stream, address, isInterrupted);
    if (error == Platform::ErrorWouldBlock) error = CompleteConnection(stream.get_handle(), isInterrupted);
    if (!error && stream.enable(ACE_NONBLOCK) == -1) error = FailureNumber();
    if (!error) {
      SetUp(stream, use);
      break;
    }
    stream.close();
    if (error == Platform::ErrorInterrupted) break;
  }
  return error;
}

Deadline DeadlineAfter(const ACE_Time_Value* wait) {
  if (!wait) return {};
  return std::chrono::steady_clock::now() + std::chrono::seconds(wait->sec()) + std::chrono::microseconds(wait->usec());
}

SocketError WaitUntilReady(ACE_HANDLE handle, Readiness readiness, const IsInterrupted& isInterrupted,
                           Deadline deadline) {
  const bool isRead = readiness != Readiness::Writable;
  const bool isWrite = readiness != Readiness::Readable;
  for (;;) {
    ACE_Time_Value wait = waitSlice;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::microseconds>(*deadline - std::chrono::steady_clock::now());
      if (left.count() < waitSlice.usec())
        wait.set(0, static_cast<suseconds_t>(std::max<std::int64_t>(left.count(), 0)));
    }
    if (ACE::handle_ready(handle, &wait, isRead, isWrite, false) > 0) return {};
    const SocketError error = Platform::LastSocketError();
    if (error != Platform::ErrorWaitTimeout && error != Platform::ErrorInterrupted) return {};
    if (isInterrupted()) return Platform::ErrorInterrupted;
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return Platform::ErrorWaitTimeout;
  }
}

SocketError WaitForRoom(ISocketStream& stream, const IsInterrupted& isInterrupted) {
  const SocketError state = stream.PeerState();
  return state ? state : WaitUntilReady(stream.Handle(), Readiness::Either, isInterrupted);
}

void AwaitDelivery(ISocketStream& stream, const std::function<bool()>& isTalking, const IsInterrupted& isInterrupted) {
  // The system does not report when the last byte is acknowledged: it has to be polled.
  constexpr std::chrono::milliseconds askEvery{5};
  while (!isInterrupted() && !stream.PeerState() && (isTalking() || !Platform::HasDeliveredAll(stream.Handle()))) {
    WaitUntilReady(
        stream.Handle(), Readiness::Readable, [] { return false; }, std::chrono::steady_clock::now() + askEvery);
  }
}

}  // namespace VaroCommunicationAPI
