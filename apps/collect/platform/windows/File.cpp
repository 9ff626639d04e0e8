#include <collect/platform/File.h>

#include <windows.h>

#include <algorithm>
#include <utility>

namespace sorvex::collect {
namespace {

constexpr DWORD shareWithAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

void SetLastError(std::error_code& error) { error.assign(static_cast<int>(GetLastError()), std::system_category()); }

std::uint64_t Join(DWORD high, DWORD low) { return static_cast<std::uint64_t>(high) << 32U | low; }

/// The creation time is useless here: a file that takes the name of a deleted one inherits it. A file's index is not
/// reused.
FileStatus ReadStatus(HANDLE file, std::error_code& error) {
  BY_HANDLE_FILE_INFORMATION native{};
  if (!GetFileInformationByHandle(file, &native)) {
    SetLastError(error);
    return {};
  }
  error.clear();
  FileStatus status;
  status.identity.volume = native.dwVolumeSerialNumber;
  status.identity.index = Join(native.nFileIndexHigh, native.nFileIndexLow);
  status.isFolder = (native.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  status.isRegular = !status.isFolder && GetFileType(file) == FILE_TYPE_DISK;
  status.hasName = native.nNumberOfLinks > 0;
  status.size = Join(native.nFileSizeHigh, native.nFileSizeLow);
  status.modified =
      static_cast<std::int64_t>(Join(native.ftLastWriteTime.dwHighDateTime, native.ftLastWriteTime.dwLowDateTime));
  return status;
}

}  // namespace

FileStatus GetFileStatus(const std::filesystem::path& path, std::error_code& error) {
  const HANDLE file = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, shareWithAll, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    SetLastError(error);
    return {};
  }
  const FileStatus status = ReadStatus(file, error);
  CloseHandle(file);
  return status;
}

struct OpenedFile::Handle {
  explicit Handle(HANDLE opened) : file(opened) {}
  ~Handle() { CloseHandle(file); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const HANDLE file;
};

OpenedFile::OpenedFile(std::unique_ptr<Handle> pHandle) : m_pHandle(std::move(pHandle)) {}

OpenedFile::~OpenedFile() = default;

std::unique_ptr<OpenedFile> OpenedFile::Open(const std::filesystem::path& path, std::error_code& error) {
  const HANDLE file =
      CreateFileW(path.c_str(), GENERIC_READ, shareWithAll, nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    SetLastError(error);
    return nullptr;
  }
  std::unique_ptr<OpenedFile> pFile(new OpenedFile(std::make_unique<Handle>(file)));
  const FileStatus status = pFile->GetStatus(error);
  if (!error && !status.isRegular) error = std::make_error_code(std::errc::not_supported);
  return error ? nullptr : std::move(pFile);
}

FileStatus OpenedFile::GetStatus(std::error_code& error) const { return ReadStatus(m_pHandle->file, error); }

std::size_t OpenedFile::ReadAt(std::uint64_t offset, char* buffer, std::size_t size, std::error_code& error) const {
  error.clear();
  std::size_t done = 0;
  while (done < size) {
    const std::uint64_t position = offset + done;
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(position);
    place.OffsetHigh = static_cast<DWORD>(position >> 32U);
    const DWORD wanted = static_cast<DWORD>(std::min<std::size_t>(size - done, 0x40000000));
    DWORD count = 0;
    if (!ReadFile(m_pHandle->file, buffer + done, wanted, &count, &place)) {
      if (GetLastError() != ERROR_HANDLE_EOF) SetLastError(error);
      break;
    }
    if (count == 0) break;
    done += count;
  }
  return done;
}

std::string PathToText(const std::filesystem::path& path) {
  const std::wstring& wide = path.native();
  const int wideSize = static_cast<int>(wide.size());
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide.data(), wideSize, nullptr, 0, nullptr, nullptr);
  std::string text(static_cast<std::size_t>(std::max(size, 0)), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), wideSize, text.data(), size, nullptr, nullptr);
  return text;
}

std::filesystem::path TextToPath(std::string_view text) {
  const int textSize = static_cast<int>(text.size());
  const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), textSize, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(std::max(size, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), textSize, wide.data(), size);
  return wide;
}

char32_t FoldCase(char32_t character) {
  if (character > 0xFFFF) return character;
  wchar_t text[] = {static_cast<wchar_t>(character), L'\0'};
  CharUpperBuffW(text, 1);
  return text[0];
}

}  // namespace sorvex::collect
