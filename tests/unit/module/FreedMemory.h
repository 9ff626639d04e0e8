// Looks into the memory that a program gives back. Replaces the allocation functions of its program.
#pragma once

#include <cstddef>
#include <string_view>

namespace sorvex::test {

/// While it lives, every block that `operator delete` takes is searched for `secret`: `runBytes` bytes of it in a row,
/// wherever they begin, count as found. One at a time; any thread may allocate. What is on a stack is out of its reach.
class FreedMemory {
 public:
  explicit FreedMemory(std::string_view secret, std::size_t runBytes = 4);
  ~FreedMemory();
  FreedMemory(const FreedMemory&) = delete;
  FreedMemory& operator=(const FreedMemory&) = delete;

  /// How many blocks have been given back since.
  int Blocks() const;

  /// How many of them held some of the secret.
  int BlocksWithSecret() const;
};

/// Returns the bytes that the allocation holds, which are at least those asked for.
std::size_t AllocatedBytes(void* memory);

}  // namespace sorvex::test
