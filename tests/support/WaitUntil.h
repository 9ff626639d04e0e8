// Waits for a condition, with a limit.
#pragma once

#include <chrono>
#include <thread>

namespace sorvex::test {

/// How long a test waits for what must happen. Passing takes far less; only a failure takes this long.
constexpr std::chrono::seconds patience{20};

/// Waits until `condition` holds, checking often; returns whether it did within the test's patience.
template <class Condition>
bool WaitUntil(Condition condition, std::chrono::milliseconds limit = patience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace sorvex::test
