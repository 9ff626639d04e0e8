#include "CertificateInStore.h"

#include <windows.h>

#include <wincrypt.h>

#include <system_error>
#include <vector>

namespace sorvex::test {

namespace {

/// The machine's store: the user's asks for confirmation in a window. Others see a change when this one is closed.
HCERTSTORE OpenForWriting(const std::wstring& name) {
  const HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, name.c_str());
  if (!store) throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CertOpenStore");
  return store;
}

/// Removes a store's registry entry for the certificate: Wine 8 leaves it when the certificate is deleted.
void RemoveRecord(const std::wstring& store, PCCERT_CONTEXT certificate) {
  BYTE hash[20];
  DWORD size = sizeof hash;
  if (!CertGetCertificateContextProperty(certificate, CERT_SHA1_HASH_PROP_ID, hash, &size)) return;
  std::wstring key = L"Software\\Microsoft\\SystemCertificates\\" + store + L"\\Certificates\\";
  for (const BYTE byte : hash) {
    key += L"0123456789ABCDEF"[byte >> 4];
    key += L"0123456789ABCDEF"[byte & 0x0F];
  }
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
}

}  // namespace

CertificateInStore::CertificateInStore(const std::wstring& store,
                                       const VaroCommunicationAPI::Platform::Certificate& certificate)
    : m_strStore(store), m_certificate(certificate) {
  const HCERTSTORE handle = OpenForWriting(store);
  const std::vector<std::uint8_t> bytes = certificate.Der();
  const BOOL added = CertAddEncodedCertificateToStore(handle, X509_ASN_ENCODING, bytes.data(),
                                                      static_cast<DWORD>(bytes.size()), CERT_STORE_ADD_NEW, nullptr);
  const DWORD error = GetLastError();
  CertCloseStore(handle, 0);
  if (!added) throw std::system_error(static_cast<int>(error), std::system_category(), "CertAddEncodedCertificate");
}

CertificateInStore::~CertificateInStore() {
  const HCERTSTORE handle = OpenForWriting(m_strStore);
  const std::vector<std::uint8_t> bytes = m_certificate.Der();
  const PCCERT_CONTEXT wanted =
      CertCreateCertificateContext(X509_ASN_ENCODING, bytes.data(), static_cast<DWORD>(bytes.size()));
  const PCCERT_CONTEXT found =
      CertFindCertificateInStore(handle, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, wanted, nullptr);
  if (found) CertDeleteCertificateFromStore(found);
  CertCloseStore(handle, 0);
  RemoveRecord(m_strStore, wanted);
  CertFreeCertificateContext(wanted);
}

}  // namespace sorvex::test
