// Time as the destination sockets see it.
#pragma once

#include <ace/Time_Value.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace VaroCommunicationAPI {

using SteadyTime = std::chrono::steady_clock::time_point;

/// Says that a socket is to end. Any thread.
class StopSignal {
 public:
  void Request(SteadyTime now);
  void Reset();
  bool IsRequested() const;

  /// When the stop was requested; meaningful while one is.
  SteadyTime RequestTime() const;

  /// Waits until a stop is requested or `duration` has passed.
  void WaitFor(std::chrono::milliseconds duration);

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bRequested = false;
  SteadyTime m_requestTime;
};

/// The clocks, and waiting. Any thread.
class ISocketTime {
 public:
  virtual ~ISocketTime() = default;

  /// Monotonic time, which alone decides when something is due: a clock that is set delays nothing.
  virtual SteadyTime Now() const = 0;

  /// Wall-clock time, for reports.
  virtual ACE_Time_Value WallClock() const = 0;

  /// Waits for `duration`, or less when a stop is requested.
  virtual void Pause(std::chrono::milliseconds duration, StopSignal& stop) = 0;

  /// The system's own clocks.
  static std::shared_ptr<ISocketTime> System();
};

}  // namespace VaroCommunicationAPI
