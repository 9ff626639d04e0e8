#include "sockets/SocketLife.h"

#include <algorithm>

namespace VaroCommunicationAPI {

bool SocketLife::Enter() {
  const QueueGuard guard(m_mutex);
  if (m_state == State::Stopping) return false;
  ++m_operations;
  return true;
}

void SocketLife::Leave() {
  const QueueGuard guard(m_mutex);
  if (--m_operations == 0) m_changed.broadcast();
}

PayloadQueue::Given SocketLife::EndService() {
  const QueueGuard guard(m_mutex);
  m_bServing = false;
  return m_queue.GiveUp();
}

SocketLife::StopOutcome SocketLife::BeginStop(Service service, SteadyTime now) {
  const QueueGuard guard(m_mutex);
  if (m_state == State::Stopping) {
    for (const std::uint64_t ended = m_endedStops; m_endedStops == ended;) m_changed.wait();
    return StopOutcome::Anothers;
  }
  if (service == Service::SendThread) {
    m_bOpen.store(false, std::memory_order_relaxed);
    if (m_bServing && !m_queue.HangUp()) return StopOutcome::Refused;
  }
  m_before = std::exchange(m_state, State::Stopping);
  m_stopTime = now;
  m_changed.broadcast();
  return StopOutcome::Begun;
}

void SocketLife::AwaitOperations() {
  const QueueGuard guard(m_mutex);
  while (m_operations != 0) m_changed.wait();
}

void SocketLife::SetOpen(bool isOpen) {
  const QueueGuard guard(m_mutex);
  m_bOpen.store(isOpen && m_state != State::Stopping, std::memory_order_relaxed);
}

void SocketLife::EndStop(Service service) {
  const QueueGuard guard(m_mutex);
  m_state = service == Service::SendThread ? State::Closed : m_before;
  m_bAbandoned = false;
  ++m_endedStops;
  m_changed.broadcast();
}

void SocketLife::Abandon() {
  const QueueGuard guard(m_mutex);
  m_bAbandoned = m_state == State::Stopping;
}

bool SocketLife::IsStopping() const {
  const QueueGuard guard(m_mutex);
  return m_state == State::Stopping;
}

bool SocketLife::IsServing() const {
  const QueueGuard guard(m_mutex);
  return m_bServing;
}

bool SocketLife::MustGiveUp(SteadyTime now, SteadyTime lastProgress) const {
  const QueueGuard guard(m_mutex);
  return m_state == State::Stopping && (m_bAbandoned || now - std::max(m_stopTime, lastProgress) > stopPatience);
}

void SocketLife::WaitForStop(std::chrono::milliseconds duration) {
  const QueueGuard guard(m_mutex);
  const SteadyTime end = std::chrono::steady_clock::now() + duration;
  // A wait may end a little early.
  for (SteadyTime now = end - duration; m_state != State::Stopping && now < end;
       now = std::chrono::steady_clock::now()) {
    const auto deadline = DeadlineAfter(std::chrono::ceil<std::chrono::milliseconds>(end - now));
    m_changed.wait(&deadline);
  }
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
