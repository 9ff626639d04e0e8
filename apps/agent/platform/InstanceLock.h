// One agent per directory.
#pragma once

#include <filesystem>
#include <memory>

namespace sorvex::agent {

/// Holds a file until it is destroyed or the process ends, in whatever way.
class InstanceLock {
 public:
  /// Makes the file when there is none. Throws `std::runtime_error` when another process holds it, and
  /// `std::system_error` when it cannot be opened.
  explicit InstanceLock(const std::filesystem::path& file);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

  /// Whether a process holds the file. Throws `std::system_error` when that cannot be found out.
  static bool IsHeld(const std::filesystem::path& file);

 private:
  struct Handle;
  std::unique_ptr<Handle> m_pHandle;
};

}  // namespace sorvex::agent
