// The file that log lines are appended to.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

namespace WindowsAgentCommon {

/// One thread at a time. Others may read, rename and delete the file meanwhile.
class LogFile {
 public:
  /// Opens the file for appending, creating it with mode 0640 where the system has modes. Throws `std::system_error`
  /// naming the file when it cannot be opened for writing.
  explicit LogFile(std::filesystem::path path);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Opens the file again when its name no longer belongs to the open one. Until that succeeds, text goes to the open
  /// file, or is lost where the system cannot make a file next to one that is being deleted.
  void Follow();

  /// Appends `text`. Throws `std::system_error` when the system does not accept all of it.
  void Write(std::string_view text);

 private:
  struct Handle;
  std::filesystem::path m_path;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace WindowsAgentCommon
