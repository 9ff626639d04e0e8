// Byte vectors in readable form.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sorvex::test {

/// Returns the bytes of `text`: pairs of hexadecimal digits, and literal texts between apostrophes. Blanks, line feeds
/// and bars only separate. Throws `std::invalid_argument` otherwise.
inline std::string HexBytes(std::string_view text) {
  const auto digit = [](char character) -> int {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    throw std::invalid_argument("not a hexadecimal digit");
  };
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ' || text[i] == '\n' || text[i] == '|') continue;
    if (text[i] == '\'') {
      const std::size_t end = text.find('\'', i + 1);
      if (end == std::string_view::npos) throw std::invalid_argument("an apostrophe is missing");
      bytes += text.substr(i + 1, end - i - 1);
      i = end;
      continue;
    }
    if (i + 1 == text.size()) throw std::invalid_argument("half a byte");
    bytes += static_cast<char>(digit(text[i]) * 16 + digit(text[i + 1]));
    ++i;
  }
  return bytes;
}

}  // namespace sorvex::test
