// A key container is one of the machine key set.
#include <platform/KeyStore.h>

#include <host/SystemError.h>
#include <host/Text.h>

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sorvex::agent {
namespace {

constexpr DWORD keyBits = 1024;

[[noreturn]] void Throw(DWORD error, const char* what) {
  throw std::runtime_error(what + (": " + WindowsAgentCommon::GetLastErrorText(static_cast<int>(error))));
}

/// The provider's name on systems older than version 5.2 says that it is a prototype.
std::wstring ProviderName() {
  std::wstring name = L"Microsoft Enhanced RSA and AES Cryptographic Provider";
  OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  if (GetVersionExW(&version) && version.dwMajorVersion * 10 + version.dwMinorVersion < 52) name += L" (Prototype)";
  return name;
}

/// An open container and its key for exchange.
class Container {
 public:
  explicit Container(const std::string& name) : m_name(WindowsAgentCommon::Utf8ToWide(name)) {}
  ~Container() {
    if (m_key) CryptDestroyKey(m_key);
    if (m_provider) CryptReleaseContext(m_provider, 0);
  }
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  /// Returns 0 or the system's error number.
  DWORD Acquire(DWORD flags = 0) {
    const bool succeeded = CryptAcquireContextW(&m_provider, m_name.empty() ? nullptr : m_name.c_str(),
                                                ProviderName().c_str(), PROV_RSA_AES, CRYPT_MACHINE_KEYSET | flags);
    return succeeded ? 0 : GetLastError();
  }
  DWORD FindKey() { return CryptGetUserKey(m_provider, AT_KEYEXCHANGE, &m_key) ? 0 : GetLastError(); }

  /// Opens both; throws.
  void Open() {
    if (const DWORD error = Acquire()) Throw(error, "the key container");
    if (const DWORD error = FindKey()) Throw(error, "the key of the container");
  }

  HCRYPTPROV Provider() const { return m_provider; }
  HCRYPTKEY Key() const { return m_key; }

  /// A new pair replaces the old one.
  void MakeKey() {
    if (!CryptGenKey(m_provider, AT_KEYEXCHANGE, keyBits << 16, &m_key)) Throw(GetLastError(), "making a key");
  }

 private:
  std::wstring m_name;
  HCRYPTPROV m_provider = 0;
  HCRYPTKEY m_key = 0;
};

}  // namespace

/// The system itself refuses names that it does not accept.
KeyStore::KeyStore(const std::string& container) : m_container(container) {}

bool KeyStore::HasKey() const {
  Container container(m_container);
  return container.Acquire() == 0 && container.FindKey() == 0;
}

void KeyStore::Create(Existing existing) const {
  if (existing == Existing::Keep && HasKey()) {
    throw std::system_error(std::make_error_code(std::errc::file_exists), "the key container");
  }
  Container container(m_container);
  DWORD error = container.Acquire();
  if (error == static_cast<DWORD>(NTE_BAD_KEYSET)) error = container.Acquire(CRYPT_NEWKEYSET);
  // Another program was faster.
  if (error == static_cast<DWORD>(NTE_EXISTS)) error = container.Acquire();
  if (error != 0) Throw(error, "the key container");
  container.MakeKey();
}

std::vector<std::uint8_t> KeyStore::PublicKey() const {
  Container container(m_container);
  container.Open();
  constexpr DWORD encoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
  DWORD size = 0;
  if (!CryptExportPublicKeyInfo(container.Provider(), AT_KEYEXCHANGE, encoding, nullptr, &size)) {
    Throw(GetLastError(), "the public key");
  }
  // The structure is at the start of the bytes that it points into.
  std::vector<CERT_PUBLIC_KEY_INFO> memory(size / sizeof(CERT_PUBLIC_KEY_INFO) + 1);
  if (!CryptExportPublicKeyInfo(container.Provider(), AT_KEYEXCHANGE, encoding, memory.data(), &size)) {
    Throw(GetLastError(), "the public key");
  }
  const CRYPT_BIT_BLOB& key = memory.front().PublicKey;
  return {key.pbData, key.pbData + key.cbData};
}

std::vector<std::uint8_t> KeyStore::Encrypt(const std::vector<std::uint8_t>& plain) const {
  Container container(m_container);
  container.Open();
  DWORD size = static_cast<DWORD>(plain.size());
  DWORD needed = size;
  if (!CryptEncrypt(container.Key(), 0, TRUE, CRYPT_OAEP, nullptr, &needed, 0)) Throw(GetLastError(), "encrypting");
  std::vector<std::uint8_t> bytes(std::max(needed, size));
  std::ranges::copy(plain, bytes.begin());
  if (!CryptEncrypt(container.Key(), 0, TRUE, CRYPT_OAEP, bytes.data(), &size, static_cast<DWORD>(bytes.size()))) {
    const DWORD error = GetLastError();
    SecureZeroMemory(bytes.data(), bytes.size());
    Throw(error, "encrypting");
  }
  bytes.resize(size);
  // The provider returns the least significant byte first.
  std::ranges::reverse(bytes);
  return bytes;
}

}  // namespace sorvex::agent
