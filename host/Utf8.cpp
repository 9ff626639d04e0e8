#include "Utf8.h"

namespace WindowsAgentCommon {
namespace {

unsigned ByteAt(std::string_view text, std::size_t position) { return static_cast<unsigned char>(text[position]); }

char LowByte(char32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); }

}  // namespace

bool NextCodePoint(std::string_view text, std::size_t& position, char32_t& codePoint) {
  const unsigned lead = ByteAt(text, position++);
  if (lead < 0x80) {
    codePoint = lead;
    return true;
  }
  if (lead < 0xC2 || lead > 0xF4) return false;

  const int following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
  char32_t value = lead & (0x3FU >> following);
  // The limits of the second byte keep out overlong forms, surrogates and values beyond U+10FFFF.
  unsigned low = lead == 0xE0 ? 0xA0U : lead == 0xF0 ? 0x90U : 0x80U;
  unsigned high = lead == 0xED ? 0x9FU : lead == 0xF4 ? 0x8FU : 0xBFU;
  for (int i = 0; i < following; ++i) {
    if (position == text.size()) return false;
    const unsigned byte = ByteAt(text, position);
    if (byte < low || byte > high) return false;
    value = (value << 6) | (byte & 0x3FU);
    ++position;
    low = 0x80;
    high = 0xBF;
  }
  codePoint = value;
  return true;
}

std::string_view CutUtf8(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  std::size_t end = 0;
  for (std::size_t position = 0; position < limit; end = position <= limit ? position : end) {
    char32_t ignored = 0;
    NextCodePoint(text, position, ignored);
  }
  return text.substr(0, end);
}

void AppendUtf8(std::string& text, char32_t codePoint) {
  if (codePoint < 0x80) {
    text += LowByte(codePoint);
  } else if (codePoint < 0x800) {
    text += LowByte(0xC0 | (codePoint >> 6));
    text += LowByte(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    text += LowByte(0xE0 | (codePoint >> 12));
    text += LowByte(0x80 | ((codePoint >> 6) & 0x3F));
    text += LowByte(0x80 | (codePoint & 0x3F));
  } else {
    text += LowByte(0xF0 | (codePoint >> 18));
    text += LowByte(0x80 | ((codePoint >> 12) & 0x3F));
    text += LowByte(0x80 | ((codePoint >> 6) & 0x3F));
    text += LowByte(0x80 | (codePoint & 0x3F));
  }
}

}  // namespace WindowsAgentCommon
