#include "FreedMemory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace sorvex::test {

namespace {

// No allocation here: all of it is read inside `operator delete`.
constexpr std::size_t maxSecretBytes = 256;
char secretBytes[maxSecretBytes];
std::size_t secretSize = 0;
std::size_t runSize = 0;
std::atomic<bool> isWatching{false};
std::atomic<int> blocks{0};
std::atomic<int> blocksWithSecret{0};

bool HoldsSecret(std::string_view block) {
  const std::string_view secret(secretBytes, secretSize);
  for (std::size_t i = 0; i + runSize <= secret.size(); ++i) {
    if (block.find(secret.substr(i, runSize)) != std::string_view::npos) return true;
  }
  return false;
}

void* Allocate(std::size_t size) {
  void* const memory = std::malloc(std::max<std::size_t>(size, 1));
  // Leftovers of an earlier owner must not be found again in blocks that nobody has filled.
  if (memory) std::memset(memory, 0, AllocatedBytes(memory));
  return memory;
}

void Free(void* memory) {
  if (memory && isWatching) {
    ++blocks;
    if (HoldsSecret({static_cast<const char*>(memory), AllocatedBytes(memory)})) ++blocksWithSecret;
  }
  std::free(memory);
}

}  // namespace

FreedMemory::FreedMemory(std::string_view secret, std::size_t runBytes) {
  secretSize = secret.copy(secretBytes, maxSecretBytes);
  runSize = runBytes;
  blocks = 0;
  blocksWithSecret = 0;
  isWatching = true;
}

FreedMemory::~FreedMemory() { isWatching = false; }

int FreedMemory::Blocks() const { return blocks; }

int FreedMemory::BlocksWithSecret() const { return blocksWithSecret; }

}  // namespace sorvex::test

#if defined(__GNUC__) && !defined(__clang__)
// The compiler sees that `delete` frees memory from `new`, and takes it for a mistake.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(std::size_t size) {
  if (void* const memory = sorvex::test::Allocate(size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return sorvex::test::Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return sorvex::test::Allocate(size); }
void operator delete(void* memory) noexcept { sorvex::test::Free(memory); }
void operator delete[](void* memory) noexcept { sorvex::test::Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { sorvex::test::Free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { sorvex::test::Free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { sorvex::test::Free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { sorvex::test::Free(memory); }
