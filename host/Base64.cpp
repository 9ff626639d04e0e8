#include <host/Base64.h>

#include <array>
#include <cstddef>

namespace WindowsAgentCommon {
namespace {

constexpr std::uint8_t BLANK = 0x80;
constexpr std::uint8_t PADDING = 0x81;
constexpr std::uint8_t OTHER = 0xFF;

/// What each character is: its six bits, or one of the marks above, which all have the top bit.
constexpr std::array<std::uint8_t, 256> MakeTable() {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::uint8_t, 256> table{};
  table.fill(OTHER);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  for (const char blank : {' ', '\t', '\n', '\v', '\f', '\r'}) table[static_cast<unsigned char>(blank)] = BLANK;
  table[static_cast<unsigned char>('=')] = PADDING;
  return table;
}

constexpr std::array<std::uint8_t, 256> TABLE = MakeTable();

std::uint8_t Classify(char character) { return TABLE[static_cast<unsigned char>(character)]; }

/// Decodes into `output`, which has room for three bytes per four characters of `text`. Returns false for a wrong text.
bool Decode(std::string_view text, std::uint8_t* output, std::size_t& size) {
  std::uint8_t* const begin = output;
  std::uint32_t group = 0;
  int collected = 0;
  int padding = 0;
  std::size_t position = 0;
  while (position < text.size()) {
    // Four plain characters at once, which nearly all of a text are.
    while (collected == 0 && padding == 0 && text.size() - position >= 4) {
      const std::uint8_t a = Classify(text[position]);
      const std::uint8_t b = Classify(text[position + 1]);
      const std::uint8_t c = Classify(text[position + 2]);
      const std::uint8_t d = Classify(text[position + 3]);
      if (((a | b | c | d) & 0x80) != 0) break;
      *output++ = static_cast<std::uint8_t>(a << 2 | b >> 4);
      *output++ = static_cast<std::uint8_t>(b << 4 | c >> 2);
      *output++ = static_cast<std::uint8_t>(c << 6 | d);
      position += 4;
    }
    if (position == text.size()) break;

    const std::uint8_t kind = Classify(text[position++]);
    if (kind == BLANK) continue;
    if (kind == OTHER) return false;
    if (kind == PADDING) {
      // Padding completes a group of two or three characters; there is never more of it.
      if (collected < 2 || collected + ++padding > 4) return false;
      continue;
    }
    if (padding != 0) return false;
    group = group << 6 | kind;
    if (++collected == 4) {
      *output++ = static_cast<std::uint8_t>(group >> 16);
      *output++ = static_cast<std::uint8_t>(group >> 8);
      *output++ = static_cast<std::uint8_t>(group);
      collected = 0;
    }
  }
  if (collected == 1) return false;
  if (collected >= 2) *output++ = static_cast<std::uint8_t>(group >> (collected == 2 ? 4 : 10));
  if (collected == 3) *output++ = static_cast<std::uint8_t>(group >> 2);
  size = static_cast<std::size_t>(output - begin);
  return true;
}

}  // namespace

bool DecodeBase64(std::string_view text, std::vector<std::uint8_t>& bytes) {
  bytes.resize(text.size() / 4 * 3 + 3);
  std::size_t size = 0;
  const bool valid = Decode(text, bytes.data(), size);
  bytes.resize(size);
  return valid;
}

}  // namespace WindowsAgentCommon
