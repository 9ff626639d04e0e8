// Writes a file so that nobody ever finds half of it under its name.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

namespace sorvex {

/// A new file next to the one it replaces. The old file stays until `Commit`; without it the new file disappears with
/// the object. One thread. Every operation throws `std::system_error` naming the file.
class FileReplacement {
 public:
  enum class Readers {
    Owner,  ///< the owner alone (on Windows also the system and administrators): for secrets
    Usual,  ///< whoever may read a new file by the system's default
  };
  enum class Existing { Replace, Keep };

  explicit FileReplacement(const std::filesystem::path& path, Readers readers = Readers::Usual);
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  void Write(std::string_view bytes);

  /// Waits until the data are on the disk, so that after a crash of the machine the old file or the whole new one is
  /// found.
  void Flush();

  /// Gives the file its name. With `Existing::Keep` it fails with `std::errc::file_exists` when the name is taken.
  void Commit(Existing existing = Existing::Replace);

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex
