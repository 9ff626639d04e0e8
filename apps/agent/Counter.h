// A number that one thread increments and others read.
#pragma once

#include <atomic>
#include <cstdint>

namespace sorvex::agent {

/// Costs the counting thread no more than a plain number; the others see changes a moment later.
class Counter {
 public:
  void operator+=(std::uint64_t amount) {
    m_value.store(m_value.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
  }
  operator std::uint64_t() const { return m_value.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> m_value{0};
};

}  // namespace sorvex::agent
