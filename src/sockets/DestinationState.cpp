#include "sockets/DestinationState.h"

#include <thread>

namespace VaroCommunicationAPI {

SpareTexts::~SpareTexts() {
  for (const std::atomic<std::string*>& text : m_texts) delete text.load();
}

std::unique_ptr<std::string> SpareTexts::Take() {
  for (std::atomic<std::string*>& text : m_texts) {
    if (!text.load(std::memory_order_relaxed)) continue;
    if (std::string* const taken = text.exchange(nullptr, std::memory_order_acquire)) {
      return std::unique_ptr<std::string>(taken);
    }
  }
  return std::make_unique<std::string>();
}

void SpareTexts::Keep(std::unique_ptr<std::string> text) {
  for (std::atomic<std::string*>& place : m_texts) {
    std::string* nobodys = nullptr;
    if (place.compare_exchange_strong(nobodys, text.get(), std::memory_order_release, std::memory_order_relaxed)) {
      static_cast<void>(text.release());
      return;
    }
  }
}

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
  // During a stop the pause above ends at once; attempts that fail at once still need one.
  constexpr std::chrono::milliseconds stoppingPause{20};
  if (m_life.IsStopping()) std::this_thread::sleep_for(stoppingPause);
}

}  // namespace VaroCommunicationAPI
