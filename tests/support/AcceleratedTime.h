// Clocks for long load tests of sockets.
#pragma once

#include "sockets/SocketServices.h"

#include <ace/OS_NS_sys_time.h>

#include <chrono>
#include <mutex>

namespace sorvex::test {

/// A monotonic clock that runs `factor` times as fast as the system's until it is slowed down to the same, so that the
/// time between reconnects passes sooner. Thread-safe.
class AcceleratedTime : public VaroCommunicationAPI::ISocketTime {
 public:
  explicit AcceleratedTime(int factor) : m_factor(factor) {}

  VaroCommunicationAPI::SteadyTime Now() const override {
    const std::lock_guard lock(m_mutex);
    return m_base + (std::chrono::steady_clock::now() - m_origin) * m_factor;
  }
  ACE_Time_Value WallClock() const override { return ACE_OS::gettimeofday(); }
  void Pause(std::chrono::milliseconds duration, VaroCommunicationAPI::SocketLife& life) override {
    int factor = 0;
    {
      const std::lock_guard lock(m_mutex);
      factor = m_factor;
    }
    life.WaitForStop(duration / factor);
  }

  void SlowDown() {
    const VaroCommunicationAPI::SteadyTime now = Now();
    const std::lock_guard lock(m_mutex);
    m_base = now;
    m_origin = std::chrono::steady_clock::now();
    m_factor = 1;
  }

 private:
  mutable std::mutex m_mutex;
  int m_factor;
  VaroCommunicationAPI::SteadyTime m_origin = std::chrono::steady_clock::now();
  VaroCommunicationAPI::SteadyTime m_base = m_origin;
};

}  // namespace sorvex::test
