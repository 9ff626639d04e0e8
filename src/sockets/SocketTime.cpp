#include "sockets/SocketTime.h"

#include <ace/OS_NS_sys_time.h>

namespace VaroCommunicationAPI {

void StopSignal::Request(SteadyTime now) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_bRequested) return;
    m_bRequested = true;
    m_requestTime = now;
  }
  m_changed.notify_all();
}

void StopSignal::Reset() {
  const std::lock_guard lock(m_mutex);
  m_bRequested = false;
}

bool StopSignal::IsRequested() const {
  const std::lock_guard lock(m_mutex);
  return m_bRequested;
}

SteadyTime StopSignal::RequestTime() const {
  const std::lock_guard lock(m_mutex);
  return m_requestTime;
}

void StopSignal::WaitFor(std::chrono::milliseconds duration) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, duration, [this] { return m_bRequested; });
}

namespace {

class SystemSocketTime : public ISocketTime {
 public:
  SteadyTime Now() const override { return std::chrono::steady_clock::now(); }
  ACE_Time_Value WallClock() const override { return ACE_OS::gettimeofday(); }
  void Pause(std::chrono::milliseconds duration, StopSignal& stop) override { stop.WaitFor(duration); }
};

}  // namespace

std::shared_ptr<ISocketTime> ISocketTime::System() {
  static const auto system = std::make_shared<SystemSocketTime>();
  return system;
}

}  // namespace VaroCommunicationAPI
