#include <host/Base64.h>

#include <array>
#include <cstddef>
#include <string>

namespace WindowsAgentCommon {
namespace {

/// Marks every character outside the alphabet; no six bits have its top bit.
constexpr std::uint8_t OTHER = 0x80;

/// The six bits for each character.
constexpr std::array<std::uint8_t, 256> MakeTable() {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<std::uint8_t, 256> table{};
  table.fill(OTHER);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr std::array<std::uint8_t, 256> TABLE = MakeTable();

std::uint8_t Classify(char character) { return TABLE[static_cast<unsigned char>(character)]; }

/// Decodes into `output`, which has room for three bytes per four characters of `text`. Returns false for a wrong text.
bool Decode(std::string_view text, std::uint8_t* output) {
  for (std::size_t position = 0; position < text.size(); position += 4) {
    const std::uint8_t a = Classify(text[position]);
    const std::uint8_t b = Classify(text[position + 1]);
    const std::uint8_t c = Classify(text[position + 2]);
    const std::uint8_t d = Classify(text[position + 3]);
    if (((a | b | c | d) & OTHER) != 0) return false;
    *output++ = static_cast<std::uint8_t>(a << 2 | b >> 4);
    *output++ = static_cast<std::uint8_t>(b << 4 | c >> 2);
    *output++ = static_cast<std::uint8_t>(c << 6 | d);
  }
  return true;
}

std::string_view WithoutBlanksAround(std::string_view text) {
  constexpr std::string_view blanks = " \t";
  const std::size_t begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

}  // namespace

bool DecodeBase64(std::string_view text, std::vector<std::uint8_t>& bytes) {
  bytes.clear();
  text = WithoutBlanksAround(text);
  if (text.size() % 4 != 0) return false;
  if (text.empty()) return true;
  // Decodes the last group as if its padding were zero bits, then cuts off the surplus bytes.
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  std::string last(text.substr(text.size() - 4));
  last.replace(4 - padding, padding, padding, 'A');
  bytes.resize(text.size() / 4 * 3);
  if (Decode(text.substr(0, text.size() - 4), bytes.data()) && Decode(last, &*(bytes.end() - 3))) {
    bytes.resize(bytes.size() - padding);
    return true;
  }
  bytes.clear();
  return false;
}

}  // namespace WindowsAgentCommon
