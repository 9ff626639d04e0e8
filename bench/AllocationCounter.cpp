// The C library lets a program bring its own allocator. This one calls the library's, by the names it keeps for that,
// with counters per thread: shared ones would take longer than what they count.
#include "AllocationCounter.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);                           // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);        // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);            // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(std::size_t alignment, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void __libc_free(void* memory);                                  // NOLINT(bugprone-reserved-identifier)
}

namespace sorvex::bench {

namespace {

constinit thread_local Allocations allocations;

void* CountAllocated(void* memory) {
  if (memory == nullptr) return nullptr;
  ++allocations.m_count;
  allocations.m_liveBytes += malloc_usable_size(memory);
  allocations.m_peakBytes = std::max(allocations.m_peakBytes, allocations.m_liveBytes);
  return memory;
}

}  // namespace

const Allocations& ThreadAllocations() { return allocations; }

void ResetPeak() { allocations.m_peakBytes = allocations.m_liveBytes; }

}  // namespace sorvex::bench

using sorvex::bench::allocations;
using sorvex::bench::CountAllocated;

#define SORVEX_VISIBLE [[gnu::visibility("default")]]

extern "C" {

SORVEX_VISIBLE void* malloc(std::size_t size) noexcept { return CountAllocated(__libc_malloc(size)); }

SORVEX_VISIBLE void* calloc(std::size_t count, std::size_t size) noexcept {
  return CountAllocated(__libc_calloc(count, size));
}

SORVEX_VISIBLE void* realloc(void* memory, std::size_t size) noexcept {
  const std::size_t before = malloc_usable_size(memory);
  void* const moved = __libc_realloc(memory, size);
  if (moved != nullptr || size == 0) allocations.m_liveBytes -= before;
  return CountAllocated(moved);
}

SORVEX_VISIBLE void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return CountAllocated(__libc_memalign(alignment, size));
}

SORVEX_VISIBLE void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return CountAllocated(__libc_memalign(alignment, size));
}

SORVEX_VISIBLE int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
  void* const aligned = CountAllocated(__libc_memalign(alignment, size));
  if (aligned == nullptr) return ENOMEM;
  *memory = aligned;
  return 0;
}

SORVEX_VISIBLE void free(void* memory) noexcept {
  if (memory == nullptr) return;
  allocations.m_liveBytes -= malloc_usable_size(memory);
  __libc_free(memory);
}

}  // extern "C"
