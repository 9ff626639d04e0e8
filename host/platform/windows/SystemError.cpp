#include <host/SystemError.h>

#include <host/Text.h>

#include <windows.h>

#include <string_view>

namespace WindowsAgentCommon {

std::string GetLastErrorText(int error) {
  wchar_t buffer[1024];
  const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        static_cast<DWORD>(error), 0, buffer, 1024, nullptr);
  std::wstring_view text(buffer, length);
  while (!text.empty() && (text.back() == L'\r' || text.back() == L'\n' || text.back() == L' ')) text.remove_suffix(1);
  return text.empty() ? "error " + std::to_string(error) : WideToUtf8(text);
}

}  // namespace WindowsAgentCommon
