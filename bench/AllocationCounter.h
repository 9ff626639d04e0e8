// Counts what the program that links it allocates: with operator new, through ACE, in the libraries.
#pragma once

#include <cstddef>

namespace sorvex::bench {

/// Of one thread, since it started.
struct Allocations {
  std::size_t m_count = 0;      ///< calls that returned memory
  std::size_t m_liveBytes = 0;  ///< not yet freed
  std::size_t m_peakBytes = 0;  ///< the most that was live since `ResetPeak`
};

/// Of the calling thread. What a thread frees of another's counts as its own.
const Allocations& ThreadAllocations();

/// Makes what the calling thread holds now its peak.
void ResetPeak();

}  // namespace sorvex::bench
