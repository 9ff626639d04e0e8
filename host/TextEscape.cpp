#include "TextEscape.h"

#include "Utf8.h"

#include <algorithm>
#include <cstddef>

namespace WindowsAgentCommon {
namespace {

bool IsPlain(char character) { return character >= 0x20 && character < 0x7F && character != '\\'; }

bool IsControl(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x2028 || codePoint == 0x2029;
}

/// Whether the character makes itself or what follows appear in a different place.
bool TurnsDirection(char32_t codePoint) {
  return codePoint == 0x061C || codePoint == 0x200E || codePoint == 0x200F ||
         (codePoint >= 0x202A && codePoint <= 0x202E) || (codePoint >= 0x2066 && codePoint <= 0x2069);
}

void AppendByte(BoundedText& text, char character) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(character);
  const char hexadecimal[] = {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 0x0F]};
  switch (character) {
    case '\\': text.AppendWhole("\\\\"); break;
    case '\n': text.AppendWhole("\\n"); break;
    case '\r': text.AppendWhole("\\r"); break;
    case '\t': text.AppendWhole("\\t"); break;
    default: text.AppendWhole({hexadecimal, sizeof hexadecimal}); break;
  }
}

}  // namespace

void AppendEscaped(BoundedText& text, std::string_view value) {
  std::size_t position = 0;
  while (position < value.size()) {
    const auto special = std::find_if_not(value.begin() + static_cast<std::ptrdiff_t>(position), value.end(), IsPlain);
    const auto next = static_cast<std::size_t>(special - value.begin());
    text.Append(value.substr(position, next - position));
    position = next;
    if (position == value.size()) return;

    char32_t codePoint = 0;
    const bool valid = NextCodePoint(value, position, codePoint);
    const std::string_view sequence = value.substr(next, position - next);
    if (valid && codePoint != '\\' && !IsControl(codePoint) && !TurnsDirection(codePoint)) {
      text.AppendWhole(sequence);
    } else {
      for (const char character : sequence) AppendByte(text, character);
    }
  }
}

}  // namespace WindowsAgentCommon
