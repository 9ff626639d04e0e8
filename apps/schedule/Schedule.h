// When an agent contacts its server, so that ten thousand agents do not come at once.
#pragma once

#include <chrono>
#include <functional>

namespace sorvex::schedule {

using Duration = std::chrono::milliseconds;

/// Returns numbers from 0 to below 1.
using Random = std::function<double()>;

/// Seeded by the system.
Random SystemRandom();

/// A pause that doubles from the first to the longest.
class GrowingPause {
 public:
  GrowingPause(Duration first, Duration longest);
  Duration Next();
  void Reset() { m_next = m_first; }

 private:
  Duration m_first;
  Duration m_longest;
  Duration m_next;
};

/// The pauses before the first round, between rounds, and before a failed one is tried again.
class Schedule {
 public:
  Schedule(Duration interval, Random random);

  /// At most the interval and a minute: agents that start together spread over it.
  Duration First();

  /// The interval, varied by up to a fifth.
  Duration AfterSuccess();

  /// Grows from `firstRetry` to a minute or the interval, whichever is longer, and is shortened at random by up to a
  /// half.
  Duration AfterFailure();

  static constexpr Duration longestFirst{60'000};
  static constexpr Duration firstRetry{10'000};
  static constexpr Duration leastLongestRetry{60'000};

 private:
  Duration m_interval;
  Random m_random;
  GrowingPause m_retry;
};

}  // namespace sorvex::schedule
