// Passes the same lines to several destinations.
#pragma once

#include <Feeder.h>

#include <memory>
#include <vector>

namespace sorvex::agent {

/// What happens to the others when one destination has no room.
enum class Pace {
  Slowest,  ///< they wait for it until it is given up
  Live,     ///< they wait while it is only slow; lines that do not fit into a dead one are skipped there, and counted
};

/// Used by the reading thread.
class Distributor {
 public:
  /// The outlets, which outlive the distributor, are opened and closed in its threads.
  Distributor(const std::vector<std::unique_ptr<Outlet>>& outlets, Pace pace);
  /// Waits until each outlet has received all that it takes, and is closed.
  ~Distributor();
  Distributor(const Distributor&) = delete;
  Distributor& operator=(const Distributor&) = delete;

  /// Waits for room as long as no destination has any, or a full one holds up the others.
  void Distribute(const std::shared_ptr<const Batch>& batch);

 private:
  bool MustWait() const;

  const std::vector<std::unique_ptr<Outlet>>& m_outlets;
  const Pace m_pace;
  RoomSignal m_room;
  std::vector<std::unique_ptr<Feeder>> m_feeders;
};

}  // namespace sorvex::agent
