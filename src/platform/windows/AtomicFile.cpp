#include "platform/AtomicFile.h"

#include <windows.h>

#include <sddl.h>

#include <memory>

namespace VaroCommunicationAPI::Platform {

namespace {

/// Nothing is inherited. Full access for the system, the administrators and the file's owner; read access for
/// everybody.
constexpr const wchar_t* accessRules = L"D:P(A;;FA;;;SY)(A;;FA;;;BA)(A;;FA;;;S-1-3-4)(A;;FR;;;WD)";

/// Creates a file with a new name next to `path` and stores it in `created`. Returns 0 or the system's error number.
int CreateBeside(const std::wstring& path, std::wstring& created, HANDLE& file) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(accessRules, SDDL_REVISION_1, &descriptor, nullptr)) {
    return static_cast<int>(GetLastError());
  }
  const std::unique_ptr<void, decltype(&LocalFree)> owned(descriptor, &LocalFree);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
  constexpr int maxAttempts = 1000;
  DWORD error = ERROR_FILE_EXISTS;
  // A process with the same number may have left files behind when it was killed.
  for (int attempt = 0; attempt < maxAttempts && error == ERROR_FILE_EXISTS; ++attempt) {
    created = path + L'.' + std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(attempt);
    file = CreateFileW(created.c_str(), GENERIC_WRITE, 0, &attributes, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    error = file == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
  }
  return static_cast<int>(error);
}

/// Writes and stores. Returns 0 or the system's error number.
int Fill(HANDLE file, std::string_view content) {
  DWORD written = 0;
  if (!WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr) ||
      !FlushFileBuffers(file)) {
    return static_cast<int>(GetLastError());
  }
  return written == content.size() ? 0 : ERROR_DISK_FULL;
}

}  // namespace

int WriteFileAtomically(const std::wstring& path, std::string_view content) {
  std::wstring beside;
  HANDLE file = INVALID_HANDLE_VALUE;
  if (const int error = CreateBeside(path, beside, file); error != 0) return error;
  int error = Fill(file, content);
  CloseHandle(file);
  if (error == 0 && !MoveFileExW(beside.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = static_cast<int>(GetLastError());
  }
  if (error != 0) DeleteFileW(beside.c_str());
  return error;
}

}  // namespace VaroCommunicationAPI::Platform
