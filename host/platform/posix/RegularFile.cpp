#include "platform/RegularFile.h"
#include "platform/posix/Descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace WindowsAgentCommon {

struct RegularFile::Handle : Descriptor {
  using Descriptor::Descriptor;
};

RegularFile::RegularFile(const std::filesystem::path& path) {
  // Without O_NONBLOCK a pipe of that name would block the caller until someone writes to it.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor == -1) return;
  auto handle = std::make_unique<Handle>(descriptor);
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) m_pHandle = std::move(handle);
}

RegularFile::~RegularFile() = default;

std::optional<std::size_t> RegularFile::Read(void* buffer, std::size_t size) {
  if (!m_pHandle) return std::nullopt;
  ssize_t count = 0;
  do {
    count = ::read(m_pHandle->descriptor, buffer, size);
  } while (count == -1 && errno == EINTR);
  if (count == -1) return std::nullopt;
  return static_cast<std::size_t>(count);
}

}  // namespace WindowsAgentCommon
