#include "platform/LogFile.h"

#include <host/Text.h>

#include <windows.h>

#include <system_error>

namespace WindowsAgentCommon {

void CreateLogFile(const std::filesystem::path& file) {
  const HANDLE handle = ::CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), WideToUtf8(PathToWide(file)));
  }
  ::CloseHandle(handle);
}

}  // namespace WindowsAgentCommon
