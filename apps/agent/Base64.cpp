#include <Base64.h>

#include <algorithm>
#include <cstdint>

namespace sorvex::agent {

std::string EncodeBase64(std::string_view bytes) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(bytes.size(), 3))) {
    const std::string_view group = bytes.substr(0, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0);
    for (std::size_t i = 0; i < 4; ++i) text += i <= group.size() ? alphabet[bits >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

}  // namespace sorvex::agent
