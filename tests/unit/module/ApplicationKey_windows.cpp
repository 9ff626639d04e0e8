#include "ApplicationKey.h"

#include <host/Text.h>

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/pem.h>

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>

namespace sorvex::test {

namespace {

constexpr const wchar_t* providerName = L"Microsoft Enhanced RSA and AES Cryptographic Provider";

/// Opens a machine key container with `flags`.
HCRYPTPROV Acquire(const std::wstring& name, DWORD flags) {
  HCRYPTPROV provider = 0;
  if (!CryptAcquireContextW(&provider, name.c_str(), providerName, PROV_RSA_AES, CRYPT_MACHINE_KEYSET | flags)) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CryptAcquireContext");
  }
  return provider;
}

void DeleteIfThere(const std::wstring& name) {
  HCRYPTPROV none = 0;
  CryptAcquireContextW(&none, name.c_str(), providerName, PROV_RSA_AES, CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET);
}

/// Removes the containers that a test made; the system would keep them for good. They are the machine's, and several
/// test programs run at once: from its first container to its end a test has exclusive use of them.
class ContainerRemover : public testing::EmptyTestEventListener {
 public:
  /// The one of this program; GoogleTest owns it.
  static ContainerRemover& Instance() {
    static ContainerRemover* const remover = [] {
      auto* const made = new ContainerRemover;
      testing::UnitTest::GetInstance()->listeners().Append(made);
      return made;
    }();
    return *remover;
  }

  ContainerRemover() : m_turn(CreateMutexW(nullptr, FALSE, L"Sorvex.TestKeyContainers")) {}
  ~ContainerRemover() override { CloseHandle(m_turn); }

  void TakeTurn() {
    constexpr DWORD patienceMs = 600'000;
    if (m_bMyTurn) return;
    if (WaitForSingleObject(m_turn, patienceMs) == WAIT_TIMEOUT) {
      throw std::runtime_error("another test keeps the key containers");
    }
    m_bMyTurn = true;
  }

  /// Makes the container, replacing a left-over one.
  HCRYPTPROV Make(const std::wstring& name) {
    TakeTurn();
    m_names.insert(name);
    DeleteIfThere(name);
    return Acquire(name, CRYPT_NEWKEYSET);
  }

  /// Removes a container that this test made.
  void Remove(const std::wstring& name) { Acquire(name, CRYPT_DELETEKEYSET); }

  void OnTestEnd(const testing::TestInfo&) override {
    if (!m_bMyTurn) return;
    for (const std::wstring& name : m_names) DeleteIfThere(name);
    m_names.clear();
    ReleaseMutex(m_turn);
    m_bMyTurn = false;
  }

 private:
  const HANDLE m_turn;
  bool m_bMyTurn = false;
  std::set<std::wstring> m_names;  ///< of this test
};

}  // namespace

void StoreInContainer(const ApplicationKey& key, const std::string& containerName) {
  const std::unique_ptr<BIO, int (*)(BIO*)> pem(BIO_new(BIO_s_mem()), &BIO_free);
  const std::unique_ptr<BIO, int (*)(BIO*)> blob(BIO_new(BIO_s_mem()), &BIO_free);
  const std::string text = key.Pem();
  BIO_write(pem.get(), text.data(), static_cast<int>(text.size()));
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> pair(
      PEM_read_bio_PrivateKey(pem.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
  i2b_PrivateKey_bio(blob.get(), pair.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(blob.get(), &data);

  const HCRYPTPROV provider = ContainerRemover::Instance().Make(WindowsAgentCommon::Utf8ToWide(containerName));
  HCRYPTKEY imported = 0;
  const bool succeeded = CryptImportKey(provider, reinterpret_cast<const BYTE*>(data), static_cast<DWORD>(size), 0,
                                        CRYPT_EXPORTABLE, &imported);
  const DWORD error = GetLastError();
  if (imported) CryptDestroyKey(imported);
  CryptReleaseContext(provider, 0);
  if (!succeeded) throw std::system_error(static_cast<int>(error), std::system_category(), "CryptImportKey");
}

void ReserveContainers() { ContainerRemover::Instance().TakeTurn(); }

void RemoveContainer(const std::string& containerName) {
  ContainerRemover::Instance().Remove(WindowsAgentCommon::Utf8ToWide(containerName));
}

ContainerRemoval::ContainerRemoval(const std::string& containerName) : m_containerName(containerName) {}

/// One that was not made need not be removed.
ContainerRemoval::~ContainerRemoval() {
  HCRYPTPROV provider = 0;
  CryptAcquireContextW(&provider, WindowsAgentCommon::Utf8ToWide(m_containerName).c_str(),
                       L"Microsoft Enhanced RSA and AES Cryptographic Provider", PROV_RSA_AES,
                       CRYPT_MACHINE_KEYSET | CRYPT_DELETEKEYSET);
}

}  // namespace sorvex::test
