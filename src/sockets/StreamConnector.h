// TCP connections that can be given up.
#pragma once

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace VaroCommunicationAPI {

/// Connects `stream` to the first of `addresses` that accepts, without a time-out and from any local address. Asks
/// `isInterrupted` at least ten times a second and gives up with error 10004 when it says so. Returns 0 with the stream
/// connected and in non-blocking mode, or the callers' number of the last address's error with the stream closed.
int ConnectStream(ACE_SOCK_Stream& stream, const std::vector<ACE_INET_Addr>& addresses,
                  const std::function<bool()>& isInterrupted);

/// Returns a new, unconnected stream that is closed when its last owner lets go of it.
std::shared_ptr<ACE_SOCK_Stream> OwnStream();

/// Makes the system send each write at once: small writes followed by a read would otherwise wait for the peer's
/// delayed acknowledgement.
void SendWithoutDelay(ACE_HANDLE handle);

enum class Readiness { Readable, Writable, Either };

/// Waits until `handle` has bytes or takes some; an error condition counts as either, and the transfer then tells
/// which. Asks `isInterrupted` at least ten times a second. Returns 0, 10004 when it says so, or 137 when `deadline`
/// has passed.
int WaitUntilReady(ACE_HANDLE handle, Readiness readiness, const std::function<bool()>& isInterrupted,
                   std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);

/// Waits until `handle` takes bytes or the peer says something, having asked `peerState` (as `Platform::PeerState`),
/// which discards what it said: a peer that waits for that reads nothing. Returns 0, the peer's state when it has ended
/// the connection, or 10004 when `isInterrupted` says so.
int WaitForRoom(ACE_HANDLE handle, const std::function<int()>& peerState, const std::function<bool()>& isInterrupted);

/// Waits, with the write side closed, until the peer has closed as well, or until `isInterrupted` says so; where the
/// system tells that the peer has everything and the peer is not a `talking` one, until then. `peerState` is as above.
/// A connection that is closed with unread data, or to which more of it comes, is reset, and the peer then loses what
/// it has not read.
void AwaitDelivery(ACE_HANDLE handle, const std::function<int()>& peerState, const std::function<bool()>& isTalking,
                   const std::function<bool()>& isInterrupted);

}  // namespace VaroCommunicationAPI
