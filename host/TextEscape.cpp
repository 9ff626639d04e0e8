#include "TextEscape.h"

#include "Utf8.h"

#include <algorithm>
#include <cstddef>

namespace WindowsAgentCommon {
namespace {

bool IsPlain(char character) { return character >= 0x20 && character < 0x7F; }

bool IsControl(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x2028 || codePoint == 0x2029;
}

void AppendByte(std::string& text, char character) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  switch (character) {
    case '\n': text += "\\n"; return;
    case '\r': text += "\\r"; return;
    case '\t': text += "\\t"; return;
    default: break;
  }
  const auto byte = static_cast<unsigned char>(character);
  text += "\\x";
  text += DIGITS[byte >> 4];
  text += DIGITS[byte & 0x0F];
}

}  // namespace

void AppendEscaped(std::string& text, std::string_view value) {
  std::size_t position = 0;
  while (position < value.size()) {
    const auto special = std::find_if_not(value.begin() + static_cast<std::ptrdiff_t>(position), value.end(), IsPlain);
    const auto next = static_cast<std::size_t>(special - value.begin());
    text.append(value, position, next - position);
    position = next;
    if (position == value.size()) return;

    char32_t codePoint = 0;
    const bool valid = NextCodePoint(value, position, codePoint);
    const std::string_view sequence = value.substr(next, position - next);
    if (valid && !IsControl(codePoint)) {
      text += sequence;
    } else {
      for (const char character : sequence) AppendByte(text, character);
    }
  }
}

}  // namespace WindowsAgentCommon
