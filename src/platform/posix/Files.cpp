#include "platform/Files.h"

#include "platform/posix/ReadDescriptor.h"

#include <host/Text.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace VaroCommunicationAPI::Platform {

namespace {

/// Returns 0 for a regular file, or the error number with which it is refused.
int CheckRegular(int file) {
  struct stat status {};
  if (fstat(file, &status) == -1) return errno;
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
}

}  // namespace

const wchar_t* const configSeparator = L"/";

int ReadFileHead(const std::wstring& path, std::size_t maxBytes, SecretText& content) {
  content.Resize(0);
  // Without O_NONBLOCK a pipe of that name would block the reader indefinitely.
  const int file = open(WindowsAgentCommon::WideToUtf8(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file == -1) return errno;
  int error = CheckRegular(file);
  if (error == 0) error = ReadDescriptor(file, maxBytes, content);
  close(file);
  return error;
}

}  // namespace VaroCommunicationAPI::Platform
