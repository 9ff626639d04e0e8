// Files that others write, rename and delete while they are read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace sorvex::collect {

/// Identifies a file on this machine, whatever its name.
struct FileIdentity {
  std::uint64_t volume = 0;  ///< on POSIX it may change at the machine's next start
  std::uint64_t index = 0;
  std::uint64_t birth = 0;  ///< creation time, where it tells files with the same index apart; else 0

  bool operator==(const FileIdentity&) const = default;
};

struct FileStatus {
  FileIdentity identity;
  bool isRegular = false;
  bool isFolder = false;
  bool hasName = true;  ///< false once it was deleted
  std::uint64_t size = 0;
  std::int64_t modified = 0;  ///< changes with the file; has no unit
};

/// Returns the status of the target of `path`, following links. Stores a failure in `error`, which is cleared
/// otherwise.
FileStatus GetFileStatus(const std::filesystem::path& path, std::error_code& error);

/// A file to be read. Others may change it freely. One thread.
class OpenedFile {
 public:
  /// Returns the file, or null with the reason in `error`. A file that is not regular is not opened
  /// (`std::errc::not_supported`).
  static std::unique_ptr<OpenedFile> Open(const std::filesystem::path& path, std::error_code& error);
  ~OpenedFile();
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  FileStatus GetStatus(std::error_code& error) const;

  /// Reads until `size` bytes are there or the file ends; returns their number.
  std::size_t ReadAt(std::uint64_t offset, char* buffer, std::size_t size, std::error_code& error) const;

 private:
  struct Handle;
  explicit OpenedFile(std::unique_ptr<Handle> pHandle);
  std::unique_ptr<Handle> m_pHandle;
};

/// The text of a path: UTF-8 on Windows, its bytes elsewhere.
std::string PathToText(const std::filesystem::path& path);
std::filesystem::path TextToPath(std::string_view text);

/// The same for two characters that are equal in file names on this system.
char32_t FoldCase(char32_t character);

}  // namespace sorvex::collect
