// Handing the same lines to several destinations.
#pragma once

#include <Feeder.h>

#include <memory>
#include <vector>

namespace sorvex::agent {

/// What becomes of the others when one destination has no room.
enum class Pace {
  Slowest,  ///< they wait for it until it is given up
  Live,     ///< they wait while it is only slow; what a dead one has no room for is left out there, and counted
};

/// Used by the reading thread.
class Distributor {
 public:
  /// The outlets, which outlive the distributor, are opened and closed in its threads.
  Distributor(const std::vector<std::unique_ptr<Outlet>>& outlets, Pace pace);
  /// Waits until each outlet has been given all that it takes, and is closed.
  ~Distributor();
  Distributor(const Distributor&) = delete;
  Distributor& operator=(const Distributor&) = delete;

  /// Waits for room as long as no destination has any, or one without holds up the others.
  void Distribute(const std::shared_ptr<const Batch>& batch);

 private:
  bool MustWait() const;

  const std::vector<std::unique_ptr<Outlet>>& m_outlets;
  const Pace m_pace;
  RoomSignal m_room;
  std::vector<std::unique_ptr<Feeder>> m_feeders;
};

}  // namespace sorvex::agent
