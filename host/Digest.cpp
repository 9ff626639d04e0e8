#include <host/Digest.h>

#include "platform/RegularFile.h"

#include <SorvexHost/MD5Digest.h>
#include <host/Text.h>

#include <optional>
#include <vector>

namespace WindowsAgentCommon {

std::string MD5Sum(const void* data, std::size_t size) {
  MD5Digest digest;
  digest.Add(data, size);
  return digest.Finish();
}

std::string MD5Sum(const std::wstring& path) {
  RegularFile file(WideToPath(path));
  MD5Digest digest;
  std::vector<char> chunk(64 * 1024);
  while (const std::optional<std::size_t> count = file.Read(chunk.data(), chunk.size())) {
    if (*count == 0) return digest.Finish();
    digest.Add(chunk.data(), *count);
  }
  return {};
}

}  // namespace WindowsAgentCommon
