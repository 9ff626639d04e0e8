#include <Distributor.h>

#include <chrono>

namespace sorvex::agent {
namespace {

using namespace std::chrono_literals;

/// How often those without room are looked at when none reports any.
constexpr auto lookInterval = 50ms;

}  // namespace

Distributor::Distributor(const std::vector<std::unique_ptr<Outlet>>& outlets) {
  for (const std::unique_ptr<Outlet>& outlet : outlets) m_feeders.push_back(std::make_unique<Feeder>(*outlet, m_room));
}

Distributor::~Distributor() {
  // All before the first is waited for.
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) feeder->End();
}

bool Distributor::MustWait() {
  bool isAnyLeft = false;
  bool isAnyReady = false;
  bool isAnySlow = false;
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) {
    const bool isStalled = feeder->IsStalled();
    if (feeder->HasGivenUp()) continue;
    isAnyLeft = true;
    if (feeder->HasRoom()) {
      isAnyReady = true;
    } else if (!isStalled) {
      isAnySlow = true;
    }
  }
  return isAnyLeft && (isAnySlow || !isAnyReady);
}

void Distributor::Distribute(const std::shared_ptr<const Batch>& batch) {
  while (MustWait()) m_room.Wait(lookInterval);
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) {
    if (feeder->HasRoom()) {
      feeder->Take(batch);
    } else {
      feeder->CountUnsent(*batch);
    }
  }
}

}  // namespace sorvex::agent
