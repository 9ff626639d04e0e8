#include "platform/KeyContainer.h"

namespace VaroCommunicationAPI::Platform {

int ExportPublicKey(const std::wstring& containerName, std::vector<std::uint8_t>& bytes) {
  bytes.clear();
  std::vector<std::uint8_t> key;
  if (const int error = ExportRsaPublicKey(containerName, key); error != 0) return error;
  bytes.assign(publicKeyPrefix.begin(), publicKeyPrefix.end());
  bytes.insert(bytes.end(), key.begin(), key.end());
  return 0;
}

}  // namespace VaroCommunicationAPI::Platform
