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
  std::filesystem::path partPath;
  int descriptor = -1;
  bool isPartThere = true;

  [[noreturn]] void ThrowErrno() const { throw std::system_error(errno, std::generic_category(), path.string()); }
};

FileReplacement::FileReplacement(const std::filesystem::path& path, Readers readers)
    : m_pState(std::make_unique<State>()) {
  m_pState->path = path;
  m_pState->partPath = path;
  m_pState->partPath += "." + std::to_string(getpid()) + ".part";
  const mode_t mode = readers == Readers::Owner ? 0600 : 0644;
  // A process of the same number may have died here before.
  unlink(m_pState->partPath.c_str());
  m_pState->descriptor = open(m_pState->partPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
  if (m_pState->descriptor < 0) m_pState->ThrowErrno();
}

FileReplacement::~FileReplacement() {
  if (m_pState->descriptor >= 0) close(m_pState->descriptor);
  if (m_pState->isPartThere) unlink(m_pState->partPath.c_str());
}

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
  if (close(std::exchange(m_pState->descriptor, -1)) != 0) m_pState->ThrowErrno();
  if (existing == Existing::Keep) {
    // Unlike a renaming, a link never takes the place of a file. The part's own name goes with the object.
    if (link(m_pState->partPath.c_str(), m_pState->path.c_str()) != 0) m_pState->ThrowErrno();
    return;
  }
  if (std::rename(m_pState->partPath.c_str(), m_pState->path.c_str()) != 0) m_pState->ThrowErrno();
  m_pState->isPartThere = false;
}

}  // namespace sorvex
