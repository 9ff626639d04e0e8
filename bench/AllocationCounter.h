// Counts what the program that links it allocates: with operator new, through ACE, in libraries.
#pragma once

#include <cstddef>

namespace sorvex::bench {

/// Of one thread since it started.
struct Allocations {
  std::size_t m_count = 0;      ///< calls that returned memory
  std::size_t m_liveBytes = 0;  ///< not yet freed
  std::size_t m_peakBytes = 0;  ///< the most that was live since `ResetPeak`
};

/// Of the calling thread. A thread that frees another's memory counts that as its own.
const Allocations& ThreadAllocations();

/// Resets the calling thread's peak to what it holds now.
void ResetPeak();

}  // namespace sorvex::bench
