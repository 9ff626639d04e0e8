// Writing a file so that nobody ever finds half of it under its name.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

namespace sorvex {

/// A new file beside the one it is to become. Until `Commit` the old one, if any, stays; without it the new one goes
/// with the object. Used by one thread. Every operation throws `std::system_error` naming the file.
class FileReplacement {
 public:
  enum class Readers {
    Owner,  ///< the owner alone (on Windows also the system and administrators): for secrets
    Usual,  ///< whoever the system usually lets read a new file
  };
  enum class Existing { Replace, Keep };

  explicit FileReplacement(const std::filesystem::path& path, Readers readers = Readers::Usual);
  ~FileReplacement();
  FileReplacement(const FileReplacement&) = delete;
  FileReplacement& operator=(const FileReplacement&) = delete;

  void Write(std::string_view bytes);

  /// Waits until what was written is on the disk, so that a machine that stops finds the old file or the whole new one.
  void Flush();

  /// Gives the file its name. With `Existing::Keep` it fails with `std::errc::file_exists` when the name is taken.
  void Commit(Existing existing = Existing::Replace);

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex
