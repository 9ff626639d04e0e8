// Socket operations that differ between the systems.
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

/// Makes a socket that no child process inherits; `family` and `type` are the system's. Returns `ACE_INVALID_HANDLE` on
/// failure, with the number in `errno` as ACE leaves it there.
ACE_HANDLE OpenSocket(int family, int type);

/// The result of one write.
struct WriteOutcome {
  std::size_t m_bytes = 0;  ///< bytes accepted by the system, even if an error followed
  SocketError m_error;
};

/// Writes what the system accepts at once of `length` bytes; never blocks or raises a signal. The handle must be in
/// non-blocking mode. Writes nothing and reports would block (10035) when there is no room.
WriteOutcome SendNow(ACE_HANDLE handle, const void* data, std::size_t length);

/// The result of sending datagrams once.
struct DatagramOutcome {
  std::size_t m_datagrams = 0;  ///< accepted by the system, from the first
  SocketError m_error;          ///< of the first that was not accepted
};

/// Sends `datagrams` in order, each as one, over a connected socket in non-blocking mode, with as few system calls as
/// the system allows. Never blocks. Stops at the first that is not accepted.
DatagramOutcome SendDatagrams(ACE_HANDLE handle, std::span<const std::span<const char>> datagrams);

/// Checks, without blocking, whether the peer has ended the connection, and discards what it sent. Returns no error
/// while the connection is up, 10101 after an orderly close, or the error that ended it. Adds the number of discarded
/// bytes to `discarded`, if given.
SocketError PeerState(ACE_HANDLE handle, std::size_t* discarded = nullptr);

/// Limits the unsent data that the system holds for a connected stream: written data are sent soon, a slow peer is
/// noticed, and less is lost when the connection breaks. A system that refuses only holds more.
void KeepBacklogSmall(ACE_HANDLE handle);

/// A number that changes when the peer of a connected stream acknowledges something; nothing where the system does not
/// report it.
std::optional<std::uint64_t> PeerProgress(ACE_HANDLE handle);

/// Whether the peer has acknowledged everything sent, including the end of the stream if the write side is closed.
/// False where the system does not report it.
bool HasDeliveredAll(ACE_HANDLE handle);

/// Sets TCP keep-alive on a connected socket: idle time before the first probe and time between probes, in
/// milliseconds (a system that counts seconds rounds up).
SocketError SetKeepAlive(ACE_HANDLE handle, std::uint32_t timeMs, std::uint32_t intervalMs);

/// For its lifetime and on its thread, a write to a closed connection raises no signal that would end the process.
/// Changes nothing process-wide. Nests.
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
