// A connection over which bytes travel, as the sockets see it, and what every kind of one does with the system.
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

/// Asked at least ten times a second while something is waited for; says that it is to be given up, with error 10004.
using IsInterrupted = std::function<bool()>;

/// What a connection is for.
enum class StreamUse {
  Exchange,  ///< requests and answers: each write is sent at once, and what the peer says is read
  Delivery   ///< one way: what is written is soon on its way; what the peer says while there is no room is discarded
};

/// One connection, from `Connect` to `Close`; another needs another object. Closes at its end. One thread at a time.
/// No operation raises a signal.
class ISocketStream {
 public:
  virtual ~ISocketStream() = default;

  /// Connects to the first of `addresses` that accepts, without a time-out but that of a handshake (error 137). `host`
  /// is the peer's name. Leaves nothing open when it fails.
  virtual SocketError Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring& host,
                              const IsInterrupted& isInterrupted) = 0;

  /// Logs what came of the attempt to connect, as far as this kind of stream tells it.
  virtual void ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const = 0;

  /// Writes all `length` bytes, waiting for room without a limit. In a delivery, a peer that ends the connection ends
  /// that wait with an error. `onProgress` is called when the system has accepted bytes. The outcome counts those that
  /// the peer can read once they are there.
  virtual Platform::WriteOutcome Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                                       const std::function<void()>& onProgress) = 0;

  /// Reads exactly `length` bytes. Waits at most `wait` each time that nothing is there (error 137), or without a limit
  /// when it is null. Error 10101 at the stream's end. What came before an error is lost.
  virtual SocketError Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) = 0;

  /// Looks, without blocking, whether the peer has ended the connection, and discards what it sent. Returns no error
  /// while the connection stands, 10101 after an orderly close, or the error it died of.
  virtual SocketError PeerState() = 0;

  /// Tells the peer that nothing follows and waits until it has everything, or has closed; discards what it says.
  virtual void Finish(const IsInterrupted& isInterrupted) = 0;

  /// Ends the connection without waiting for the peer. Idempotent.
  virtual void Close() = 0;

  virtual ACE_HANDLE Handle() const = 0;
};

/// Makes the stream for an attempt to connect; null, with the reason logged, when there can be none.
using StreamMaker = std::function<std::unique_ptr<ISocketStream>(const WindowsAgentCommon::Log& log)>;

/// Connects `stream` to the first of `addresses` that accepts, without a time-out and from any local address, and sets
/// it up for its use. Leaves the stream connected and in non-blocking mode, or returns the last address's error with
/// the stream closed.
SocketError ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses, StreamUse use,
                          const IsInterrupted& isInterrupted);

enum class Readiness { Readable, Writable, Either };

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

/// The end of a wait of `wait` that begins now; none when it is null.
Deadline DeadlineAfter(const ACE_Time_Value* wait);

/// Waits until `handle` has bytes or takes some; an error condition counts as either, and the transfer then tells
/// which. Ends with 10004 when `isInterrupted` says so, or 137 when `deadline` has passed.
SocketError WaitUntilReady(ACE_HANDLE handle, Readiness readiness, const IsInterrupted& isInterrupted,
                           Deadline deadline = std::nullopt);

/// Waits until the stream takes bytes or the peer says something, having asked for the peer's state, which discards
/// what it said: a peer that waits for that reads nothing. Ends with the peer's state when it has ended the connection,
/// or 10004 when `isInterrupted` says so.
SocketError WaitForRoom(ISocketStream& stream, const IsInterrupted& isInterrupted);

/// Waits, with the write side closed, until the peer has closed as well, or until `isInterrupted` says so; where the
/// system tells that the peer has everything and the peer is not a `talking` one, until then. A connection that is
/// closed with unread data, or to which more of it comes, is reset, and the peer then loses what it has not read.
void AwaitDelivery(ISocketStream& stream, const std::function<bool()>& isTalking, const IsInterrupted& isInterrupted);

}  // namespace VaroCommunicationAPI
