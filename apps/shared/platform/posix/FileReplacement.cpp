#include <shared/platform/FileReplacement.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <utility>

namespace sorvex {

struct FileReplacement::State {
  std::filesystem::path path;
  std::filesystem::path partPath;  ///< beside the file, while the new one has that name
  int descriptor = -1;
  bool hasPartName = false;

  ~State() {
    if (descriptor >= 0) close(descriptor);
    if (hasPartName) unlink(partPath.c_str());
  }

  [[noreturn]] void ThrowErrno() const { throw std::system_error(errno, std::generic_category(), path.string()); }

  /// A file without a name disappears with the process, however that ends.
  bool OpenNameless(mode_t mode) {
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
    descriptor = open(folder.c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, mode);
    if (descriptor < 0) return false;
    if (access(DescriptorPath().c_str(), F_OK) == 0) return true;
    close(std::exchange(descriptor, -1));
    return false;
  }

  std::string DescriptorPath() const { return "/proc/self/fd/" + std::to_string(descriptor); }

  void GivePartName() {
    if (hasPartName) return;
    unlink(partPath.c_str());
    if (linkat(AT_FDCWD, DescriptorPath().c_str(), AT_FDCWD, partPath.c_str(), AT_SYMLINK_FOLLOW) != 0) ThrowErrno();
    hasPartName = true;
  }
};

FileReplacement::FileReplacement(const std::filesystem::path& path, Readers readers)
    : m_pState(std::make_unique<State>()) {
  m_pState->path = path;
  m_pState->partPath = path;
  m_pState->partPath += "." + std::to_string(getpid()) + ".part";
  const mode_t mode = readers == Readers::Owner ? 0600 : 0644;
  if (m_pState->OpenNameless(mode)) return;
  // Some file systems do not support files without a name. A process with the same number may have died here before.
  unlink(m_pState->partPath.c_str());
  m_pState->descriptor = open(m_pState->partPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  if (m_pState->descriptor < 0) m_pState->ThrowErrno();
  m_pState->hasPartName = true;
}

FileReplacement::~FileReplacement() = default;

void FileReplacement::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(m_pState->descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) m_pState->ThrowErrno();
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void FileReplacement::Flush() {
  if (fsync(m_pState->descriptor) != 0) m_pState->ThrowErrno();
}

void FileReplacement::Commit(Existing existing) {
  m_pState->GivePartName();
  if (close(std::exchange(m_pState->descriptor, -1)) != 0) m_pState->ThrowErrno();
  const char* const path = m_pState->path.c_str();
  const char* const partPath = m_pState->partPath.c_str();
  // Unlike a rename, a link never replaces a file. The part's own name goes with the object.
  if (existing == Existing::Keep && link(partPath, path) != 0) m_pState->ThrowErrno();
  if (existing == Existing::Keep) return;
  if (std::rename(partPath, path) != 0) m_pState->ThrowErrno();
  m_pState->hasPartName = false;
}

}  // namespace sorvex
