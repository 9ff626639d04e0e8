// Reads an open file.
#pragma once

#include "platform/SecretText.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace VaroCommunicationAPI::Platform {

/// Reads from the position of `file` to its end, at most `maxBytes`. Returns 0, or the system's error number with
/// `content` empty.
inline int ReadDescriptor(int file, std::size_t maxBytes, SecretText& content) {
  content.Resize(maxBytes);
  std::size_t filled = 0;
  while (filled < maxBytes) {
    const ssize_t count = read(file, content.Data() + filled, maxBytes - filled);
    if (count == 0) break;
    if (count == -1) {
      if (errno == EINTR) continue;
      const int error = errno;
      content.Resize(0);
      return error;
    }
    filled += static_cast<std::size_t>(count);
  }
  content.Resize(filled);
  return 0;
}

}  // namespace VaroCommunicationAPI::Platform
