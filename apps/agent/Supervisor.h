// Keeps a destination from delaying the end of the program.
#pragma once

#include <Outlet.h>

#include <schedule/StoppableThread.h>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace sorvex::agent {

/// Checks every outlet many times a second, in its own thread, and gives up:
/// - an outlet that has made no progress for the user's time;
/// - all of them shortly after the program was asked to end, when lines already read should have been passed on;
/// - an outlet without progress for five seconds after the end of the input, if it keeps others from ending.
/// What an outlet then still writes is limited too. When all are given up, reading ends. A datagram now and then
/// between failures is no progress: some systems accept every other one for a port on which nobody listens.
class Supervisor {
 public:
  /// `outlets` outlive the supervisor; it is made before they are opened and destroyed after they were closed.
  Supervisor(const std::vector<std::unique_ptr<Outlet>>& outlets, const ForwardCommand& command);

 private:
  using Time = std::chrono::steady_clock::time_point;

  struct Watched {
    Outlet& outlet;
    OutletActivity last;
    Time unmovedSince;
    std::optional<Time> lastFailure;
    std::optional<Time> failingSince;  ///< one failure has followed another since
    std::optional<Time> abandonTime;
  };

  void Run();
  void Look(Watched& watched, Time now);
  void NoteActivity(Watched& watched, Time now) const;
  std::optional<std::string> ReasonToGiveUp(const Watched& watched, Time now) const;

  const std::optional<double> m_giveUpAfter;
  std::vector<Watched> m_watched;
  std::optional<Time> m_interruptTime;
  schedule::StoppableThread m_thread;  ///< last: it uses the others until it is joined
};

}  // namespace sorvex::agent
