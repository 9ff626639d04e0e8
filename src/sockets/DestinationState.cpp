#include "sockets/DestinationState.h"

#include <thread>

namespace VaroCommunicationAPI {

Platform::ResolvedHost DestinationState::ResolveTarget(Platform::AddressFamily family,
                                                       const std::function<bool()>& isInterrupted) const {
  return m_services.m_resolveHost(m_strHost, m_port, family, isInterrupted);
}

bool DestinationState::MustGiveUp() const {
  const SteadyTime now = Now();
  return m_life.MustGiveUp(now, m_lastProgress) || m_turn.MustGiveWay(now);
}

void DestinationState::NoteProgress() { m_lastProgress = Now(); }

void DestinationState::Pause(std::chrono::milliseconds duration) {
  m_services.m_pTime->Pause(duration, m_life);
  // What fails at once is not tried without pausing until the stop's patience is over.
  constexpr std::chrono::milliseconds stoppingPause{20};
  if (m_life.IsStopping()) std::this_thread::sleep_for(stoppingPause);
}

}  // namespace VaroCommunicationAPI
