// Clocks for sockets whose pauses and intervals would make a test long.
#pragma once

#include "sockets/SocketServices.h"

#include <ace/OS_NS_sys_time.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace sorvex::test {

/// The monotonic clock runs like the system's, but can be put forward, and a socket's pauses really last a tenth of
/// their time. The wall clock is the system's unless it is set. Thread-safe.
class SkippingTime : public VaroCommunicationAPI::ISocketTime {
 public:
  VaroCommunicationAPI::SteadyTime Now() const override {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(m_skippedMs);
  }
  ACE_Time_Value WallClock() const override {
    return ACE_OS::gettimeofday() + ACE_Time_Value(static_cast<time_t>(m_wallOffsetSeconds));
  }
  void Pause(std::chrono::milliseconds duration, VaroCommunicationAPI::SocketLife& life) override {
    const auto waited = duration / 10;
    life.WaitForStop(waited);
    if (life.IsStopping()) return;
    Advance(duration - waited);
    m_skippedInPauses += duration - waited;
  }

  /// The total by which the pauses of the calling thread were shorter than they seemed. Subjectively the thread has
  /// taken that much longer than the system's clock shows.
  static std::chrono::milliseconds SkippedInPauses() { return m_skippedInPauses; }

  void Advance(std::chrono::milliseconds duration) { m_skippedMs += duration.count(); }

  /// Sets the wall clock, as an administrator would; the monotonic one continues.
  void SetWallClock(std::chrono::seconds offset) { m_wallOffsetSeconds = offset.count(); }

 private:
  static inline thread_local std::chrono::milliseconds m_skippedInPauses{0};

  std::atomic<std::int64_t> m_skippedMs{0};
  std::atomic<std::int64_t> m_wallOffsetSeconds{0};
};

}  // namespace sorvex::test
