// Memory that holds a secret.
#pragma once

#include <cstddef>
#include <memory>

namespace VaroCommunicationAPI::Platform {

/// Overwrites `size` bytes with zeros in a way that a compiler does not remove.
void WipeMemory(void* data, std::size_t size);

/// Wipes memory before freeing it.
template <class T>
struct WipingAllocator {
  using value_type = T;

  WipingAllocator() = default;
  template <class U>
  WipingAllocator(const WipingAllocator<U>&) {}

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, std::size_t count) {
    WipeMemory(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }

  bool operator==(const WipingAllocator&) const = default;
};

}  // namespace VaroCommunicationAPI::Platform
