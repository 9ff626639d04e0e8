// Handing the same lines to several queued destinations.
#pragma once

#include <Feeder.h>

#include <memory>
#include <vector>

namespace sorvex::agent {

/// One that is dead does not slow the others: what it has no room for while others go on is lost to it, and counted.
/// Used by the reading thread.
class Distributor {
 public:
  /// The outlets, which outlive the distributor, are opened and closed in its threads.
  explicit Distributor(const std::vector<std::unique_ptr<Outlet>>& outlets);
  /// Waits until each outlet has been given all that it takes, and is closed.
  ~Distributor();
  Distributor(const Distributor&) = delete;
  Distributor& operator=(const Distributor&) = delete;

  /// Waits for room as long as no destination has any, or one without is only slow.
  void Distribute(const std::shared_ptr<const Batch>& batch);

 private:
  bool MustWait();

  RoomSignal m_room;
  std::vector<std::unique_ptr<Feeder>> m_feeders;
};

}  // namespace sorvex::agent
