#include "platform/CertificateStore.h"

#include <windows.h>

#include <wincrypt.h>

namespace VaroCommunicationAPI::Platform {

const int certificateNotFound = static_cast<int>(CRYPT_E_NOT_FOUND);

int CertificateStore::Open(const std::wstring& name) {
  m_pNative.reset();
  const HCERTSTORE store = CertOpenSystemStoreW(0, name.c_str());
  if (!store) return static_cast<int>(GetLastError());
  m_pNative = {store, [](HCERTSTORE owned) { CertCloseStore(owned, 0); }};
  return 0;
}

Certificate CertificateStore::FindIssuer(const Certificate& certificate) const {
  Certificate issuer;
  if (!m_pNative) return issuer;
  const auto* const context = static_cast<PCCERT_CONTEXT>(certificate.m_pNative.get());
  const PCCERT_CONTEXT found = CertFindCertificateInStore(m_pNative.get(), X509_ASN_ENCODING, 0, CERT_FIND_SUBJECT_NAME,
                                                          &context->pCertInfo->Issuer, nullptr);
  if (found) issuer.m_pNative = {found, [](const CERT_CONTEXT* owned) { CertFreeCertificateContext(owned); }};
  return issuer;
}

}  // namespace VaroCommunicationAPI::Platform
