#include "platform/LogFile.h"
#include "platform/posix/Descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace WindowsAgentCommon {
namespace {

int Open(const std::filesystem::path& path) {
  return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
}

}  // namespace

struct LogFile::Handle : Descriptor {
  using Descriptor::Descriptor;
};

LogFile::LogFile(std::filesystem::path path) : m_path(std::move(path)) {
  const int descriptor = Open(m_path);
  if (descriptor == -1) throw std::system_error(errno, std::system_category(), m_path.native());
  m_pHandle = std::make_unique<Handle>(descriptor);
}

LogFile::~LogFile() = default;

void LogFile::Follow() {
  struct stat named {};
  struct stat open {};
  const bool same = ::stat(m_path.c_str(), &named) == 0 && ::fstat(m_pHandle->descriptor, &open) == 0 &&
                    named.st_dev == open.st_dev && named.st_ino == open.st_ino;
  if (same) return;
  if (const int descriptor = Open(m_path); descriptor != -1) m_pHandle = std::make_unique<Handle>(descriptor);
}

void LogFile::Write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(m_pHandle->descriptor, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw std::system_error(errno, std::system_category(), m_path.native());
    }
  }
}

}  // namespace WindowsAgentCommon
