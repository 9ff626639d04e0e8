#include <Distributor.h>

#include <chrono>

namespace sorvex::agent {
namespace {

using namespace std::chrono_literals;

/// How often full outlets are checked when none reports room.
constexpr auto lookInterval = 50ms;

}  // namespace

Distributor::Distributor(const std::vector<std::unique_ptr<Outlet>>& outlets, Pace pace)
    : m_outlets(outlets), m_pace(pace) {
  for (const std::unique_ptr<Outlet>& outlet : outlets) m_feeders.push_back(std::make_unique<Feeder>(*outlet, m_room));
}

Distributor::~Distributor() {
  // All before the first is waited for.
  if (m_pace == Pace::Live) {
    for (const std::unique_ptr<Outlet>& outlet : m_outlets) outlet->NoteEndOfInput();
  }
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) feeder->End();
}

bool Distributor::MustWait() const {
  bool isAnyLeft = false;
  bool isAnyReady = false;
  bool isAnyHoldingUp = false;
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) {
    if (feeder->HasGivenUp()) continue;
    isAnyLeft = true;
    if (feeder->HasRoom()) {
      isAnyReady = true;
    } else if (m_pace == Pace::Slowest || !feeder->IsStalled()) {
      isAnyHoldingUp = true;
    }
  }
  return isAnyLeft && (isAnyHoldingUp || !isAnyReady);
}

void Distributor::Distribute(const std::shared_ptr<const Batch>& batch) {
  while (MustWait()) m_room.Wait(lookInterval);
  for (const std::unique_ptr<Feeder>& feeder : m_feeders) {
    if (feeder->HasRoom()) {
      feeder->Take(batch);
    } else {
      feeder->LeaveOut(*batch);
    }
  }
}

}  // namespace sorvex::agent
