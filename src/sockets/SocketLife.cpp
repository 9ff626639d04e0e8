#include "sockets/SocketLife.h"

#include <algorithm>

namespace VaroCommunicationAPI {

bool SocketLife::Enter() {
  const std::lock_guard lock(m_mutex);
  if (m_state == State::Stopping) return false;
  ++m_operations;
  return true;
}

void SocketLife::Leave() {
  {
    const std::lock_guard lock(m_mutex);
    --m_operations;
  }
  m_changed.notify_all();
}

void SocketLife::AwaitOperations() {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [this] { return m_operations == 0; });
}

void SocketLife::SetOpen(bool isOpen) {
  const std::lock_guard lock(m_mutex);
  m_bOpen.store(isOpen && m_state != State::Stopping, std::memory_order_relaxed);
}

void SocketLife::EndStop(Service service) {
  {
    const std::lock_guard lock(m_mutex);
    m_state = service == Service::SendThread ? State::Closed : m_before;
    m_bAbandoned = false;
    ++m_endedStops;
  }
  m_changed.notify_all();
}

void SocketLife::Abandon() {
  const std::lock_guard lock(m_mutex);
  m_bAbandoned = m_state == State::Stopping;
}

bool SocketLife::IsStopping() const {
  const std::lock_guard lock(m_mutex);
  return m_state == State::Stopping;
}

bool SocketLife::IsServing() const {
  const std::lock_guard lock(m_mutex);
  return m_bServing;
}

bool SocketLife::MustGiveUp(SteadyTime now, SteadyTime lastProgress) const {
  const std::lock_guard lock(m_mutex);
  return m_state == State::Stopping && (m_bAbandoned || now - std::max(m_stopTime, lastProgress) > stopPatience);
}

void SocketLife::WaitForStop(std::chrono::milliseconds duration) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, duration, [this] { return m_state == State::Stopping; });
}

ConnectionTurn::Holder::Holder(ConnectionTurn& turn) : m_turn(turn) {
  std::unique_lock lock(turn.m_mutex);
  turn.m_changed.wait(lock, [&turn] { return !turn.m_bHeld && turn.m_claims == 0; });
  turn.m_bHeld = true;
}

ConnectionTurn::Holder::Holder(ConnectionTurn& turn, SteadyTime now) : m_turn(turn) {
  std::unique_lock lock(turn.m_mutex);
  if (turn.m_claims++ == 0) turn.m_claimTime = now;
  turn.m_changed.wait(lock, [&turn] { return !turn.m_bHeld; });
  --turn.m_claims;
  turn.m_bHeld = true;
}

ConnectionTurn::Holder::~Holder() {
  {
    const std::lock_guard lock(m_turn.m_mutex);
    m_turn.m_bHeld = false;
  }
  m_turn.m_changed.notify_all();
}

bool ConnectionTurn::MustGiveWay(SteadyTime now) const {
  const std::lock_guard lock(m_mutex);
  return m_claims > 0 && now - m_claimTime > claimPatience;
}

}  // namespace VaroCommunicationAPI
