#include "platform/AtomicFile.h"

#include <host/Text.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace VaroCommunicationAPI::Platform {

namespace {

/// Writes, lets others read, and stores. Returns 0 or the system's error number.
int Fill(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = write(file, content.data(), content.size());
    if (count == -1 && errno == EINTR) continue;
    if (count == -1) return errno;
    content.remove_prefix(static_cast<std::size_t>(count));
  }
  // Without the second call, a power cut could leave the name with an empty file.
  return fchmod(file, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) == -1 || fsync(file) == -1 ? errno : 0;
}

}  // namespace

int WriteFileAtomically(const std::wstring& path, std::string_view content) {
  const std::string target = WindowsAgentCommon::WideToUtf8(path);
  std::string beside = target + ".XXXXXX";
  const int file = mkostemp(beside.data(), O_CLOEXEC);
  if (file == -1) return errno;
  int error = Fill(file, content);
  if (close(file) == -1 && error == 0) error = errno;
  if (error == 0 && rename(beside.c_str(), target.c_str()) == -1) error = errno;
  if (error != 0) unlink(beside.c_str());
  return error;
}

}  // namespace VaroCommunicationAPI::Platform
