#include "install/AutoCreationFile.h"

#include "install/InstallLines.h"
#include "platform/Files.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace VaroCommunicationAPI {

namespace {

constexpr std::size_t maxAutoCreationFileBytes = 65536;

/// The converted text goes into a buffer of this size; the rest is lost.
constexpr std::size_t maxConvertedBytes = 65536;

void AppendUtf8(std::string& text, std::uint32_t codePoint) {
  const auto append = [&text](std::uint32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (codePoint < 0x80) {
    append(codePoint);
  } else if (codePoint < 0x800) {
    append(0xC0 | codePoint >> 6);
    append(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    append(0xE0 | codePoint >> 12);
    append(0x80 | (codePoint >> 6 & 0x3F));
    append(0x80 | (codePoint & 0x3F));
  } else {
    append(0xF0 | codePoint >> 18);
    append(0x80 | (codePoint >> 12 & 0x3F));
    append(0x80 | (codePoint >> 6 & 0x3F));
    append(0x80 | (codePoint & 0x3F));
  }
}

/// Converts UTF-16 little-endian bytes up to their first zero character. A lone surrogate becomes U+FFFD. An odd last
/// byte is completed with a zero, as in the zero-filled buffer that the format assumes.
std::string Utf16LittleEndianToUtf8(std::string_view bytes) {
  std::string text;
  std::uint32_t high = 0;
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    const char highByte = i + 1 < bytes.size() ? bytes[i + 1] : '\0';
    const std::uint32_t unit =
        static_cast<unsigned char>(bytes[i]) | std::uint32_t{static_cast<unsigned char>(highByte)} << 8;
    if (unit == 0) break;
    const bool isLow = unit >= 0xDC00 && unit < 0xE000;
    if (high != 0 && isLow) {
      AppendUtf8(text, 0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00));
      high = 0;
      continue;
    }
    if (high != 0) AppendUtf8(text, 0xFFFD);
    high = unit >= 0xD800 && unit < 0xDC00 ? unit : 0;
    if (high == 0) AppendUtf8(text, isLow ? 0xFFFD : unit);
  }
  if (high != 0) AppendUtf8(text, 0xFFFD);
  return text;
}

}  // namespace

bool ProcessAutoCreationFile(const std::wstring& path, WindowsAgentCommon::ParameterBlock& parameters,
                             const WindowsAgentCommon::Log& log) {
  Platform::SecretText content;
  if (Platform::ReadFileHead(path, maxAutoCreationFileBytes, content) != 0) {
    log.Info("Couldn't find the log source auto-creation parameters (in file %s) - now assuming there are none.", path);
    return true;
  }
  // The byte-order mark is skipped unchecked.
  constexpr std::size_t byteOrderMarkBytes = 2;
  const std::string_view bytes = content.View();
  const std::string_view characters = bytes.substr(std::min(byteOrderMarkBytes, bytes.size()));
  std::string text = Utf16LittleEndianToUtf8(characters);
  if (text.size() > maxConvertedBytes) {
    // No character is split: the parameters stay UTF-8.
    std::size_t end = maxConvertedBytes;
    while ((static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    text.resize(end);
  }
  AddInstallLines(text, "AutoCreation.", parameters);
  return true;
}

}  // namespace VaroCommunicationAPI
