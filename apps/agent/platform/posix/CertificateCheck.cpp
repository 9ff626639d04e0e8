#include <platform/CertificateCheck.h>

#include <openssl/err.h>
#include <openssl/x509.h>

namespace sorvex::agent {

bool IsCertificate(std::span<const std::uint8_t> der) {
  const unsigned char* position = der.data();
  X509* const certificate = d2i_X509(nullptr, &position, static_cast<long>(der.size()));
  ERR_clear_error();
  X509_free(certificate);
  return certificate != nullptr;
}

}  // namespace sorvex::agent
