#include <host/Digest.h>

#include <SorvexHost/MD5Digest.h>
#include <host/Text.h>

#include <fstream>
#include <vector>

namespace WindowsAgentCommon {

std::string MD5Sum(const void* data, std::size_t size) {
  MD5Digest digest;
  digest.Add(data, size);
  return digest.Finish();
}

std::string MD5Sum(const std::wstring& path) {
  std::ifstream file(WideToPath(path), std::ios::binary);
  if (!file) return {};
  MD5Digest digest;
  std::vector<char> chunk(64 * 1024);
  do {
    file.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    digest.Add(chunk.data(), static_cast<std::size_t>(file.gcount()));
  } while (file);
  // A directory can be opened; only reading it fails.
  return file.eof() && !file.bad() ? digest.Finish() : std::string();
}

}  // namespace WindowsAgentCommon
