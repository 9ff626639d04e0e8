#include <host/Text.h>

#include "Utf8.h"

#include <cstdint>
#include <type_traits>

namespace WindowsAgentCommon {
namespace {

constexpr bool WIDE_IS_UTF16 = sizeof(wchar_t) == 2;

char32_t UnitAt(std::wstring_view text, std::size_t position) {
  return static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[position]));
}

bool IsSurrogate(char32_t value) { return value >= 0xD800 && value <= 0xDFFF; }

[[maybe_unused]] bool IsHighSurrogate(char32_t value) { return value >= 0xD800 && value <= 0xDBFF; }

[[maybe_unused]] bool IsLowSurrogate(char32_t value) { return value >= 0xDC00 && value <= 0xDFFF; }

/// In UTF-32 a byte that is not UTF-8 becomes this code point, where there is no character.
constexpr char32_t LONE_BYTE = 0xDC00;

bool IsLoneByte(char32_t value) { return !WIDE_IS_UTF16 && value >= LONE_BYTE + 0x80 && value <= LONE_BYTE + 0xFF; }

void AppendWide(std::wstring& text, char32_t codePoint) {
  if constexpr (WIDE_IS_UTF16) {
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      text += static_cast<wchar_t>(0xD800 + (codePoint >> 10));
      text += static_cast<wchar_t>(0xDC00 + (codePoint & 0x3FF));
      return;
    }
  }
  text += static_cast<wchar_t>(codePoint);
}

template <class Native>
std::wstring NativeToWide(const Native& native) {
  if constexpr (std::is_same_v<Native, std::wstring>) {
    return native;
  } else {
    return Utf8ToWide(native);
  }
}

template <class Path>
Path PathFromWide(std::wstring_view text) {
  if constexpr (std::is_same_v<typename Path::string_type, std::wstring>) {
    return Path(text);
  } else {
    return Path(WideToUtf8(text));
  }
}

}  // namespace

std::wstring Utf8ToWide(std::string_view text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    char32_t codePoint = 0;
    std::size_t begin = position;
    if (NextCodePoint(text, position, codePoint)) {
      AppendWide(wide, codePoint);
    } else if (WIDE_IS_UTF16) {
      AppendWide(wide, REPLACEMENT_CHARACTER);
    } else {
      for (; begin < position; ++begin) AppendWide(wide, LONE_BYTE + static_cast<unsigned char>(text[begin]));
    }
  }
  return wide;
}

utf8string WideToUtf8(std::wstring_view text) {
  utf8string narrow;
  narrow.reserve(text.size());
  for (std::size_t position = 0; position < text.size(); ++position) {
    char32_t codePoint = UnitAt(text, position);
    if constexpr (WIDE_IS_UTF16) {
      if (IsHighSurrogate(codePoint) && position + 1 < text.size() && IsLowSurrogate(UnitAt(text, position + 1))) {
        codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (UnitAt(text, ++position) - 0xDC00);
      }
    }
    if (IsLoneByte(codePoint)) {
      narrow += static_cast<char>(static_cast<unsigned char>(codePoint - LONE_BYTE));
      continue;
    }
    AppendUtf8(narrow, IsSurrogate(codePoint) || codePoint > 0x10FFFF ? REPLACEMENT_CHARACTER : codePoint);
  }
  return narrow;
}

std::filesystem::path WideToPath(std::wstring_view text) { return PathFromWide<std::filesystem::path>(text); }

std::wstring PathToWide(const std::filesystem::path& path) { return NativeToWide(path.native()); }

}  // namespace WindowsAgentCommon
