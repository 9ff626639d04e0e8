#include "platform/LogFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace WindowsAgentCommon {

void CreateLogFile(const std::filesystem::path& file) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (descriptor == -1) throw std::system_error(errno, std::system_category(), file.native());
  ::close(descriptor);
}

}  // namespace WindowsAgentCommon
