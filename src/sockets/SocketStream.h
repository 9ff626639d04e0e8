// A connection that carries bytes, as the sockets see it, and what all kinds of it share.
#pragma once

#include "platform/SocketIo.h"

#include <host/Log.h>

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

using Platform::SocketError;

/// Called at least ten times a second during a wait; true ends the wait with error 10004.
using IsInterrupted = std::function<bool()>;

/// What a connection is for.
enum class StreamUse {
  Exchange,  ///< requests and answers: each write is sent at once, and what the peer sends is read
  Delivery   ///< one way: what is written may be held back briefly; what the peer sends is discarded
};

/// One connection, from `Connect` to `Close`; a new one needs a new object. Destruction closes. One thread at a time.
/// No operation raises a signal.
class ISocketStream {
 public:
  virtual ~ISocketStream() = default;

  /// Connects to the first of `addresses` that accepts, without a time-out except for a handshake (error 137). `host`
  /// is the peer's name. Leaves nothing open on failure.
  virtual SocketError Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring& host,
                              const IsInterrupted& isInterrupted) = 0;

  /// Logs the result of connecting, as far as this kind of stream reports it.
  virtual void ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const = 0;

  /// Writes all `length` bytes, waiting for room without limit. In a delivery, that wait fails when the peer ends the
  /// connection. `onProgress` is called when the system has accepted bytes. The outcome counts the bytes that the peer
  /// can read once they arrive.
  virtual Platform::WriteOutcome Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                                       const std::function<void()>& onProgress) = 0;

  /// Reads exactly `length` bytes. Each time there is nothing to read, waits at most `wait` (then error 137), or
  /// without limit if it is null. Error 10101 at the stream's end. What was read before an error is lost.
  virtual SocketError Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) = 0;

  /// Checks, without blocking, whether the peer has ended the connection, and discards what it sent. Returns no error
  /// while the connection is up, 10101 after an orderly close, or the error that ended it.
  virtual SocketError PeerState() = 0;

  /// Tells the peer that nothing follows and waits until it has everything or has closed; discards what it sends.
  virtual void Finish(const IsInterrupted& isInterrupted) = 0;

  /// Ends the connection without waiting for the peer. Idempotent.
  virtual void Close() = 0;

  virtual ACE_HANDLE Handle() const = 0;
};

/// Makes the stream for an attempt to connect; null, with the reason logged, if that is impossible.
using StreamMaker = std::function<std::unique_ptr<ISocketStream>(const WindowsAgentCommon::Log& log)>;

/// Connects `stream` to the first of `addresses` that accepts, without a time-out and from any local address, and sets
/// it up for its use. Leaves the stream connected and non-blocking, or closed, returning the last address's error.
SocketError ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses, StreamUse use,
                          const IsInterrupted& isInterrupted);

enum class Readiness { Readable, Writable, Either };

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// Returns the end of a wait that begins now; none if `wait` is null.
Deadline DeadlineAfter(const ACE_Time_Value* wait);

/// Waits until `handle` is ready; an error condition counts as ready, and the transfer then reports it. Ends with 10004
/// when `isInterrupted` says so, or 137 when `deadline` has passed.
SocketError WaitUntilReady(ACE_HANDLE handle, Readiness readiness, const IsInterrupted& isInterrupted,
                           Deadline deadline = std::nullopt);

/// Waits until the stream takes bytes or the peer sends something. Asks for the peer's state first, which discards what
/// it sent: a peer that waits for its own writes reads nothing. Ends with that state if the peer has ended the
/// connection, or 10004 when `isInterrupted` says so.
SocketError WaitForRoom(ISocketStream& stream, const IsInterrupted& isInterrupted);

/// With the write side closed, waits until the peer has closed as well or `isInterrupted` says so; if the peer is not
/// talking, also only until the system reports that it has everything. A connection that is closed with unread data, or
/// that receives more afterwards, is reset, and the peer then loses what it has not read.
void AwaitDelivery(ISocketStream& stream, const std::function<bool()>& isTalking, const IsInterrupted& isInterrupted);

}  // namespace VaroCommunicationAPI
