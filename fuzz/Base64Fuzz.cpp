// Base64 of any text.
#include <host/Base64.h>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> bytes{1};
  const bool valid = WindowsAgentCommon::DecodeBase64({reinterpret_cast<const char*>(data), size}, bytes);
  if (!valid && !bytes.empty()) std::abort();
  if (bytes.size() > size / 4 * 3 + 2) std::abort();
  return 0;
}
