#include "platform/Files.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

const wchar_t* const configSeparator = L"\\";

int ReadFileHead(const std::wstring& path, std::size_t maxBytes, SecretText& content) {
  content.Resize(0);
  const HANDLE file =
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return static_cast<int>(GetLastError());
  content.Resize(maxBytes);
  std::size_t filled = 0;
  // Pipes and devices have their own kinds of names here.
  DWORD error = GetFileType(file) == FILE_TYPE_DISK ? ERROR_SUCCESS : ERROR_NOT_SUPPORTED;
  while (error == ERROR_SUCCESS && filled < maxBytes) {
    DWORD count = 0;
    if (!ReadFile(file, content.Data() + filled, static_cast<DWORD>(maxBytes - filled), &count, nullptr)) {
      error = GetLastError();
      break;
    }
    if (count == 0) break;
    filled += count;
  }
  CloseHandle(file);
  content.Resize(error == ERROR_SUCCESS ? filled : 0);
  return static_cast<int>(error);
}

}  // namespace VaroCommunicationAPI::Platform
