// Bytes as hexadecimal digits.
#pragma once

#include <span>
#include <string>

namespace WindowsAgentCommon {

/// Two lower-case digits per byte.
inline std::string HexText(std::span<const unsigned char> bytes) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 0x0F];
  }
  return text;
}

}  // namespace WindowsAgentCommon
