// Reading a regular file.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>

namespace WindowsAgentCommon {

/// One thread. Others may write, rename and delete the file meanwhile.
class RegularFile {
 public:
  /// Opens the file. A file that cannot be opened or is not regular (a pipe, a device, a directory) is not open
  /// afterwards; nothing waits for the other end of a pipe.
  explicit RegularFile(const std::filesystem::path& path);
  ~RegularFile();
  RegularFile(const RegularFile&) = delete;
  RegularFile& operator=(const RegularFile&) = delete;

  /// Reads up to `size` bytes. Returns their number, 0 at the end, or nothing when the file is not open or cannot be
  /// read.
  std::optional<std::size_t> Read(void* buffer, std::size_t size);

 private:
  struct Handle;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace WindowsAgentCommon
