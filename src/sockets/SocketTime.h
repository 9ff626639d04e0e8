// Time as the destination sockets see it.
#pragma once

#include "sockets/SocketLife.h"

#include <ace/Time_Value.h>

#include <chrono>
#include <memory>

namespace VaroCommunicationAPI {

/// The clocks, and waiting. Any thread.
class ISocketTime {
 public:
  virtual ~ISocketTime() = default;

  /// Monotonic time, which alone decides when something is due: a clock that is set delays nothing.
  virtual SteadyTime Now() const = 0;

  /// Wall-clock time, for reports.
  virtual ACE_Time_Value WallClock() const = 0;

  /// Waits for `duration`, or less when a stop begins.
  virtual void Pause(std::chrono::milliseconds duration, SocketLife& life) = 0;

  /// The system's own clocks.
  static std::shared_ptr<ISocketTime> System();
};

}  // namespace VaroCommunicationAPI
