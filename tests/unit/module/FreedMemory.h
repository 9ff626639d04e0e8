// Searches the memory that a program frees. Replaces the allocation functions of its program.
#pragma once

#include <cstddef>
#include <string_view>

namespace sorvex::test {

/// During its lifetime, every block passed to `operator delete` is searched for `secret`: any `runBytes` consecutive
/// bytes of it count as found. One at a time; any thread may allocate. Stacks are not searched.
class FreedMemory {
 public:
  explicit FreedMemory(std::string_view secret, std::size_t runBytes = 4);
  ~FreedMemory();
  FreedMemory(const FreedMemory&) = delete;
  FreedMemory& operator=(const FreedMemory&) = delete;

  /// How many blocks have been freed since.
  int Blocks() const;

  /// How many of them held some of the secret.
  int BlocksWithSecret() const;
};

/// Returns the size of the allocation, which is at least the size requested.
std::size_t AllocatedBytes(void* memory);

}  // namespace sorvex::test
