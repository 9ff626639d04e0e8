#include <schedule/Schedule.h>

#include <algorithm>
#include <memory>
#include <random>
#include <utility>

namespace sorvex::schedule {
namespace {

Duration Scale(Duration duration, double factor) {
  return std::chrono::duration_cast<Duration>(std::chrono::duration<double, std::milli>(duration) * factor);
}

}  // namespace

Random SystemRandom() {
  // Held by a pointer, so that copies of the function share its state.
  auto engine = std::make_shared<std::mt19937_64>(std::random_device{}());
  return [engine = std::move(engine)] { return std::uniform_real_distribution<double>(0, 1)(*engine); };
}

GrowingPause::GrowingPause(Duration first, Duration longest) : m_first(first), m_longest(longest), m_next(first) {}

Duration GrowingPause::Next() {
  const Duration pause = m_next;
  m_next = std::min(m_next * 2, m_longest);
  return pause;
}

Schedule::Schedule(Duration interval, Random random)
    : m_interval(interval),
      m_random(std::move(random)),
      m_retry(std::min(interval, firstRetry), std::max(interval, leastLongestRetry)) {}

Duration Schedule::First() { return Scale(std::min(m_interval, longestFirst), m_random()); }

Duration Schedule::AfterSuccess() {
  m_retry.Reset();
  return Scale(m_interval, 0.8 + 0.4 * m_random());
}

Duration Schedule::AfterFailure() { return Scale(m_retry.Next(), 1 - 0.5 * m_random()); }

}  // namespace sorvex::schedule
