#include "platform/KeyContainer.h"

#include "platform/windows/CryptProviderName.h"

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <utility>

namespace VaroCommunicationAPI::Platform {

namespace {

/// An open container; released on destruction.
class Container {
 public:
  /// Returns 0 or the system's error number.
  int Open(const std::wstring& name) {
    return CryptAcquireContextW(&m_provider, name.empty() ? nullptr : name.c_str(), GetCryptProviderName().c_str(),
                                PROV_RSA_AES, CRYPT_MACHINE_KEYSET)
               ? 0
               : static_cast<int>(GetLastError());
  }
  ~Container() {
    if (m_key) CryptDestroyKey(m_key);
    if (m_provider) CryptReleaseContext(m_provider, 0);
  }

  HCRYPTPROV m_provider = 0;
  HCRYPTKEY m_key = 0;
};

}  // namespace

int DecryptWithContainer(const std::wstring& containerName, std::span<const std::uint8_t> cipherText,
                         SecretText& plainText) {
  plainText.Resize(0);
  Container container;
  if (const int error = container.Open(containerName); error != 0) return error;
  if (!CryptGetUserKey(container.m_provider, AT_KEYEXCHANGE, &container.m_key)) return static_cast<int>(GetLastError());
  DWORD blockBits = 0;
  DWORD size = sizeof blockBits;
  if (!CryptGetKeyParam(container.m_key, KP_BLOCKLEN, reinterpret_cast<BYTE*>(&blockBits), &size, 0)) {
    return static_cast<int>(GetLastError());
  }
  // Not every provider checks the length before it reads.
  if (cipherText.size() != blockBits / 8) return static_cast<int>(NTE_BAD_LEN);
  // The provider takes the least significant byte first.
  SecretText decrypted;
  decrypted.Resize(cipherText.size());
  std::reverse_copy(cipherText.begin(), cipherText.end(), decrypted.Data());
  size = static_cast<DWORD>(cipherText.size());
  if (!CryptDecrypt(container.m_key, 0, TRUE, CRYPT_OAEP, reinterpret_cast<BYTE*>(decrypted.Data()), &size)) {
    return static_cast<int>(GetLastError());
  }
  decrypted.Resize(size);
  plainText = std::move(decrypted);
  return 0;
}

int ExportRsaPublicKey(const std::wstring& containerName, std::vector<std::uint8_t>& bytes) {
  Container container;
  if (const int error = container.Open(containerName); error != 0) return error;
  constexpr DWORD encoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
  DWORD size = 0;
  if (!CryptExportPublicKeyInfo(container.m_provider, AT_KEYEXCHANGE, encoding, nullptr, &size)) {
    return static_cast<int>(GetLastError());
  }
  // The structure is at the start of the bytes that it points into.
  std::vector<CERT_PUBLIC_KEY_INFO> memory(size / sizeof(CERT_PUBLIC_KEY_INFO) + 1);
  if (!CryptExportPublicKeyInfo(container.m_provider, AT_KEYEXCHANGE, encoding, memory.data(), &size)) {
    return static_cast<int>(GetLastError());
  }
  const CRYPT_BIT_BLOB& key = memory.front().PublicKey;
  bytes.assign(key.pbData, key.pbData + key.cbData);
  return 0;
}

}  // namespace VaroCommunicationAPI::Platform
