#include <platform/CertificateCheck.h>

// windows.h comes first: the other needs its types.
#include <windows.h>

#include <wincrypt.h>

namespace sorvex::agent {

bool IsCertificate(std::span<const std::uint8_t> der) {
  const CERT_CONTEXT* const certificate =
      CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()));
  if (certificate == nullptr) return false;
  CertFreeCertificateContext(certificate);
  return true;
}

}  // namespace sorvex::agent
