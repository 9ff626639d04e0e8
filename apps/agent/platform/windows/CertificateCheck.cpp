#include <platform/CertificateCheck.h>

// windows.h comes first: the other needs its types.
#include <windows.h>

#include <wincrypt.h>

#include <cstddef>

namespace sorvex::agent {
namespace {

/// Whether `der` is a sequence to its last byte. The system overlooks what follows one.
bool IsOneSequence(std::span<const std::uint8_t> der) {
  constexpr std::uint8_t sequence = 0x30;
  constexpr std::uint8_t isLong = 0x80;
  if (der.size() < 2 || der[0] != sequence) return false;
  std::size_t header = 2;
  std::size_t length = der[1];
  if (length >= isLong) {
    const std::size_t count = length - isLong;
    if (count > 4 || der.size() < header + count) return false;
    length = 0;
    for (; header < 2 + count; ++header) length = length << 8 | der[header];
  }
  return der.size() - header == length;
}

}  // namespace

bool IsCertificate(std::span<const std::uint8_t> der) {
  if (!IsOneSequence(der)) return false;
  const CERT_CONTEXT* const certificate =
      CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()));
  CertFreeCertificateContext(certificate);
  return certificate != nullptr;
}

}  // namespace sorvex::agent
