// Tells whether bytes have changed.
#pragma once

#include <cstdint>
#include <string_view>

namespace sorvex::collect {

/// FNV-1a, 64 bits. Detects accidental differences, not forgery. The hash of a text continues from that of its head.
class Fingerprint {
 public:
  static constexpr std::uint64_t ofNothing = 0xCBF29CE484222325;

  static constexpr std::uint64_t Extend(std::uint64_t hash, std::string_view bytes) {
    for (const char byte : bytes) {
      hash ^= static_cast<unsigned char>(byte);
      hash *= 0x100000001B3;
    }
    return hash;
  }
};

}  // namespace sorvex::collect
