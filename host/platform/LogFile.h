// The file that log lines are appended to.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

namespace WindowsAgentCommon {

/// For one thread at a time. Others may read the file, rename it and delete it meanwhile.
class LogFile {
 public:
  /// Opens the file to append to it; made with mode 0640 where the system has modes. Throws `std::system_error` naming
  /// the file when it cannot be opened for writing.
  explicit LogFile(std::filesystem::path path);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// Opens the file anew when its name does not stand for the open one any more. Until that succeeds, what is written
  /// goes to the open one, or is lost where the system cannot make a file beside one that is being deleted.
  void Follow();

  /// Appends `text`. Throws `std::system_error` when the system does not take all of it.
  void Write(std::string_view text);

 private:
  struct Handle;
  std::filesystem::path m_path;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace WindowsAgentCommon
