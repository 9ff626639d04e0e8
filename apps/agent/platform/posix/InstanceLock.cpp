#include <platform/InstanceLock.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace sorvex::agent {
namespace {

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) close(number);
  }
};

[[noreturn]] void ThrowErrno(const std::filesystem::path& file) {
  throw std::system_error(errno, std::generic_category(), file.string());
}

/// A lock of the whole file that belongs to the open file and not to the process.
struct flock WholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

}  // namespace

struct InstanceLock::Handle {
  Descriptor descriptor;
};

InstanceLock::InstanceLock(const std::filesystem::path& file)
    : m_pHandle(new Handle{{open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)}}) {
  if (m_pHandle->descriptor.number < 0) ThrowErrno(file);
  struct flock lock = WholeFile();
  if (fcntl(m_pHandle->descriptor.number, F_OFD_SETLK, &lock) == 0) return;
  if (errno != EAGAIN && errno != EACCES) ThrowErrno(file);
  throw std::runtime_error("another agent runs here: it holds " + file.string());
}

InstanceLock::~InstanceLock() = default;

bool InstanceLock::IsHeld(const std::filesystem::path& file) {
  const Descriptor descriptor{open(file.c_str(), O_RDONLY | O_CLOEXEC)};
  if (descriptor.number < 0 && errno == ENOENT) return false;
  if (descriptor.number < 0) ThrowErrno(file);
  // Asks without locking, so that an agent starting now is not refused.
  struct flock lock = WholeFile();
  if (fcntl(descriptor.number, F_OFD_GETLK, &lock) != 0) ThrowErrno(file);
  return lock.l_type != F_UNLCK;
}

}  // namespace sorvex::agent
