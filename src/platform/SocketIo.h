// Socket operations that the systems offer differently.
#pragma once

#include "platform/SocketErrors.h"

#include <ace/Basic_Types.h>
#include <ace/Time_Value.h>
#include <ace/os_include/os_stddef.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace VaroCommunicationAPI::Platform {

/// Makes a socket that no process started from this one inherits; `family` and `type` are the system's. Returns
/// `ACE_INVALID_HANDLE` on failure, with the number in `errno` as ACE leaves it there.
ACE_HANDLE OpenSocket(int family, int type);

/// What one write took.
struct WriteOutcome {
  std::size_t m_bytes = 0;  ///< bytes accepted by the system, also when an error followed them
  SocketError m_error;
};

/// Writes what the system takes at once of `length` bytes and never blocks nor raises a signal. The handle must be in
/// non-blocking mode. Takes nothing and reports would block (10035) when there is no room.
WriteOutcome SendNow(ACE_HANDLE handle, const void* data, std::size_t length);

/// What one round of sending datagrams took.
struct DatagramOutcome {
  std::size_t m_datagrams = 0;  ///< accepted by the system, from the first
  SocketError m_error;          ///< of the first that was not accepted
};

/// Sends `datagrams` in order, each as one, over a connected socket in non-blocking mode, with as few system calls as
/// the system allows. Never blocks. Stops at the first that is not accepted.
DatagramOutcome SendDatagrams(ACE_HANDLE handle, std::span<const std::span<const char>> datagrams);

/// Looks, without blocking, whether the peer has ended the connection, and discards what it sent. Returns no error
/// while the connection stands, 10101 after an orderly close, or the error it died of. Adds to `discarded`, if
/// given, the number of bytes.
SocketError PeerState(ACE_HANDLE handle, std::size_t* discarded = nullptr);

/// Keeps what the system holds of a connected stream before it is on its way small: what is written is soon sent, a
/// slow peer is noticed, and less is lost when the connection breaks. A system that refuses only holds more.
void KeepBacklogSmall(ACE_HANDLE handle);

/// A number that changes when the peer of a connected stream acknowledges something; nothing where the system does not
/// tell.
std::optional<std::uint64_t> PeerProgress(ACE_HANDLE handle);

/// Whether the peer has acknowledged all that was sent, the end of the stream included if the write side is closed.
/// False where the system does not tell.
bool HasDeliveredAll(ACE_HANDLE handle);

/// Sets TCP keep-alive on a connected socket: idle time before the first probe and time between probes, in
/// milliseconds (a system that counts seconds rounds up).
SocketError SetKeepAlive(ACE_HANDLE handle, std::uint32_t timeMs, std::uint32_t intervalMs);

/// TCP keep-alive as a socket has it. A system need not tell the times.
struct KeepAlive {
  bool m_bEnabled = false;
  std::optional<std::uint32_t> m_timeMs;
  std::optional<std::uint32_t> m_intervalMs;
};

/// Reads back what `SetKeepAlive` sets.
SocketError GetKeepAlive(ACE_HANDLE handle, KeepAlive& keepAlive);

/// Keeps, for the time of its life and on its thread, a write to a closed connection from raising a signal that would
/// end the process. Changes nothing process-wide. Nests.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard();
  ~BrokenPipeGuard();
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  bool m_bRestore = false;
};

}  // namespace VaroCommunicationAPI::Platform
