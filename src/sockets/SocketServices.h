// What the destination sockets need from the system, so that something else can take its place.
#pragma once

#include "platform/NameResolver.h"
#include "platform/SocketIo.h"
#include "sockets/SocketLife.h"

#include <ace/Time_Value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace VaroCommunicationAPI {

/// Clocks and waiting. Any thread.
class ISocketTime {
 public:
  virtual ~ISocketTime() = default;

  /// Monotonic time, which alone decides when something is due: setting the clock delays nothing.
  virtual SteadyTime Now() const = 0;

  /// Wall-clock time, for reports.
  virtual ACE_Time_Value WallClock() const = 0;

  /// Waits for `duration`, or less if a stop begins.
  virtual void Pause(std::chrono::milliseconds duration, SocketLife& life) = 0;

  /// The system's own clocks.
  static std::shared_ptr<ISocketTime> System();
};

/// Each is the system's own unless another is given; the platform's headers describe the operations. Any thread.
struct SocketServices {
  std::shared_ptr<ISocketTime> m_pTime = ISocketTime::System();
  std::function<Platform::ResolvedHost(const std::wstring& host, std::uint32_t port, Platform::AddressFamily family,
                                       const std::function<bool()>& isInterrupted)>
      m_resolveHost = &Platform::ResolveHost;
  std::function<Platform::SocketError(ACE_HANDLE handle, std::uint32_t timeMs, std::uint32_t intervalMs)>
      m_setKeepAlive = &Platform::SetKeepAlive;
  std::function<std::optional<std::uint64_t>(ACE_HANDLE handle)> m_peerProgress = &Platform::PeerProgress;
  std::function<Platform::DatagramOutcome(ACE_HANDLE handle, std::span<const std::span<const char>> datagrams)>
      m_sendDatagrams = &Platform::SendDatagrams;
};

}  // namespace VaroCommunicationAPI
