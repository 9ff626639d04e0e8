#include <shared/platform/FileReplacement.h>

#include <windows.h>

#include <sddl.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

namespace sorvex {

namespace {

/// Whoever reads the old file without allowing others to replace it, such as a backup, is done with it soon.
constexpr int replaceAttempts = 50;
constexpr DWORD replacePauseMs = 20;

bool IsInUse(DWORD error) { return error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION; }

}  // namespace

struct FileReplacement::State {
  std::filesystem::path path;
  std::filesystem::path partPath;
  HANDLE file = INVALID_HANDLE_VALUE;
  bool isPartThere = false;  ///< even when it is no longer being written

  ~State() {
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    if (isPartThere) DeleteFileW(partPath.c_str());
  }

  [[noreturn]] void ThrowLastError() const {
    const DWORD error = GetLastError();
    const std::u8string name = path.u8string();
    throw std::system_error(static_cast<int>(error), std::system_category(), std::string(name.begin(), name.end()));
  }

  /// A file deleted with its last handle disappears with the process, however that ends.
  void GoWithHandle(bool goes) const {
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = goes;
    if (!SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition)) ThrowLastError();
  }
};

FileReplacement::FileReplacement(const std::filesystem::path& path, Readers readers)
    : m_pState(std::make_unique<State>()) {
  m_pState->path = path;
  m_pState->partPath = path;
  m_pState->partPath += L"." + std::to_wstring(GetCurrentProcessId()) + L".part";

  SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
  // Nothing is inherited; everything for the owner, the system and administrators.
  if (readers == Readers::Owner &&
      !ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;FA;;;OW)(A;;FA;;;SY)(A;;FA;;;BA)", SDDL_REVISION_1,
                                                            &attributes.lpSecurityDescriptor, nullptr)) {
    m_pState->ThrowLastError();
  }
  DeleteFileW(m_pState->partPath.c_str());
  m_pState->file = CreateFileW(m_pState->partPath.c_str(), GENERIC_WRITE | DELETE, FILE_SHARE_READ, &attributes,
                               CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  const DWORD error = GetLastError();
  if (attributes.lpSecurityDescriptor != nullptr) LocalFree(attributes.lpSecurityDescriptor);
  SetLastError(error);
  if (m_pState->file == INVALID_HANDLE_VALUE) m_pState->ThrowLastError();
  m_pState->isPartThere = true;
  m_pState->GoWithHandle(true);
}

FileReplacement::~FileReplacement() = default;

void FileReplacement::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 0x40000000));
    DWORD count = 0;
    if (!WriteFile(m_pState->file, bytes.data(), wanted, &count, nullptr)) m_pState->ThrowLastError();
    bytes.remove_prefix(count);
  }
}

void FileReplacement::Flush() {
  if (!FlushFileBuffers(m_pState->file)) m_pState->ThrowLastError();
}

void FileReplacement::Commit(Existing existing) {
  m_pState->GoWithHandle(false);
  CloseHandle(std::exchange(m_pState->file, INVALID_HANDLE_VALUE));
  const DWORD flags = existing == Existing::Replace ? MOVEFILE_REPLACE_EXISTING : 0;
  for (int attempt = 1; !MoveFileExW(m_pState->partPath.c_str(), m_pState->path.c_str(), flags); ++attempt) {
    if (!IsInUse(GetLastError()) || attempt == replaceAttempts) m_pState->ThrowLastError();
    Sleep(replacePauseMs);
  }
  m_pState->isPartThere = false;
}

}  // namespace sorvex
