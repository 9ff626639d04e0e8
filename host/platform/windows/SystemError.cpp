#include <host/SystemError.h>

#include <host/Text.h>

#include <windows.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <string>

namespace WindowsAgentCommon {

std::string GetLastErrorText(int error) {
  wchar_t buffer[1024];
  const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        static_cast<DWORD>(error), 0, buffer, 1024, nullptr);
  const std::wstring text =
      boost::algorithm::trim_right_copy_if(std::wstring(buffer, length), boost::algorithm::is_any_of(L"\r\n "));
  return text.empty() ? "error " + std::to_string(error) : WideToUtf8(text);
}

}  // namespace WindowsAgentCommon
