#include "platform/RegularFile.h"

#include <windows.h>

#include <algorithm>

namespace WindowsAgentCommon {

struct RegularFile::Handle {
  explicit Handle(HANDLE opened) : file(opened) {}
  ~Handle() { ::CloseHandle(file); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const HANDLE file;
};

RegularFile::RegularFile(const std::filesystem::path& path) {
  const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  auto handle = std::make_unique<Handle>(file);
  // Pipes and devices have their own kinds of names here.
  if (::GetFileType(file) == FILE_TYPE_DISK) m_pHandle = std::move(handle);
}

RegularFile::~RegularFile() = default;

std::optional<std::size_t> RegularFile::Read(void* buffer, std::size_t size) {
  if (!m_pHandle) return std::nullopt;
  const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(size, 0x40000000));
  DWORD count = 0;
  if (!::ReadFile(m_pHandle->file, buffer, wanted, &count, nullptr)) return std::nullopt;
  return count;
}

}  // namespace WindowsAgentCommon
