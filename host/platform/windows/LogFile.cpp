#include "platform/LogFile.h"

#include <host/Text.h>

#include <windows.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace WindowsAgentCommon {
namespace {

constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HANDLE Open(const std::filesystem::path& path) {
  return ::CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, SHARE_ALL, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

[[noreturn]] void Throw(DWORD error, const std::filesystem::path& path) {
  throw std::system_error(static_cast<int>(error), std::system_category(), WideToUtf8(PathToWide(path)));
}

bool IsBeingDeleted(HANDLE file) {
  FILE_STANDARD_INFO state{};
  return ::GetFileInformationByHandleEx(file, FileStandardInfo, &state, sizeof state) && state.DeletePending;
}

/// Whether `path` names the open file.
bool IsNameOf(const std::filesystem::path& path, HANDLE file) {
  const HANDLE named = ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, SHARE_ALL, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr);
  if (named == INVALID_HANDLE_VALUE) return false;
  BY_HANDLE_FILE_INFORMATION ofName{};
  BY_HANDLE_FILE_INFORMATION ofFile{};
  const bool same = ::GetFileInformationByHandle(named, &ofName) && ::GetFileInformationByHandle(file, &ofFile) &&
                    ofName.dwVolumeSerialNumber == ofFile.dwVolumeSerialNumber &&
                    ofName.nFileIndexHigh == ofFile.nFileIndexHigh && ofName.nFileIndexLow == ofFile.nFileIndexLow;
  ::CloseHandle(named);
  return same;
}

}  // namespace

struct LogFile::Handle {
  explicit Handle(HANDLE opened) : file(opened) {}
  ~Handle() { Close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  void Close() {
    if (file != INVALID_HANDLE_VALUE) ::CloseHandle(file);
    file = INVALID_HANDLE_VALUE;
  }

  HANDLE file;
};

LogFile::LogFile(std::filesystem::path path) : m_path(std::move(path)) {
  const HANDLE file = Open(m_path);
  if (file == INVALID_HANDLE_VALUE) Throw(::GetLastError(), m_path);
  m_pHandle = std::make_unique<Handle>(file);
}

LogFile::~LogFile() = default;

void LogFile::Follow() {
  if (m_pHandle->file != INVALID_HANDLE_VALUE && IsNameOf(m_path, m_pHandle->file)) return;
  HANDLE file = Open(m_path);
  if (file == INVALID_HANDLE_VALUE && IsBeingDeleted(m_pHandle->file)) {
    // Such a file may keep its name until its last handle is closed.
    m_pHandle->Close();
    file = Open(m_path);
  }
  if (file != INVALID_HANDLE_VALUE) m_pHandle = std::make_unique<Handle>(file);
}

void LogFile::Write(std::string_view text) {
  while (!text.empty()) {
    const DWORD part = static_cast<DWORD>(std::min<std::size_t>(text.size(), 0x40000000));
    DWORD count = 0;
    if (!::WriteFile(m_pHandle->file, text.data(), part, &count, nullptr)) Throw(::GetLastError(), m_path);
    text.remove_prefix(count);
  }
}

}  // namespace WindowsAgentCommon
