#include "sockets/SocketServices.h"

#include <ace/OS_NS_sys_time.h>

namespace VaroCommunicationAPI {

namespace {

class SystemSocketTime : public ISocketTime {
 public:
  SteadyTime Now() const override { return std::chrono::steady_clock::now(); }
  ACE_Time_Value WallClock() const override { return ACE_OS::gettimeofday(); }
  void Pause(std::chrono::milliseconds duration, SocketLife& life) override { life.WaitForStop(duration); }
};

}  // namespace

std::shared_ptr<ISocketTime> ISocketTime::System() {
  static const auto system = std::make_shared<SystemSocketTime>();
  return system;
}

}  // namespace VaroCommunicationAPI
