// Certificates with chosen content.
#pragma once

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sorvex::test {

/// One attribute of a name: its bytes as encoded.
struct NameAttribute {
  int m_nid;
  int m_type;
  std::string m_bytes;
  bool m_bSameRelativeName = false;  ///< is in the same relative name as the attribute before it
};
using Name = std::vector<NameAttribute>;

inline X509_NAME* MakeName(const Name& attributes) {
  X509_NAME* const name = X509_NAME_new();
  for (const NameAttribute& attribute : attributes) {
    if (X509_NAME_add_entry_by_NID(
            name, attribute.m_nid, attribute.m_type, reinterpret_cast<const unsigned char*>(attribute.m_bytes.data()),
            static_cast<int>(attribute.m_bytes.size()), -1, attribute.m_bSameRelativeName ? -1 : 0) != 1) {
      throw std::runtime_error("OpenSSL refused the test's name");
    }
  }
  return name;
}

/// A certificate of these names in DER. `alternativeAddress` and `comment` become extensions unless empty.
inline std::vector<std::uint8_t> MakeCertificate(const Name& subject, const Name& issuer,
                                                 const std::string& alternativeAddress = {},
                                                 const std::string& comment = {}) {
  static EVP_PKEY* const key = EVP_RSA_gen(1024);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), &X509_free);
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 7);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key);
  const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> subjectName(MakeName(subject), &X509_NAME_free);
  const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> issuerName(MakeName(issuer), &X509_NAME_free);
  X509_set_subject_name(certificate.get(), subjectName.get());
  X509_set_issuer_name(certificate.get(), issuerName.get());
  const auto extend = [&](int nid, const std::string& value) {
    if (value.empty()) return;
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str());
    if (!extension) throw std::runtime_error("OpenSSL refused the test's extension");
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
  };
  extend(NID_subject_alt_name, alternativeAddress.empty() ? "" : "email:" + alternativeAddress);
  extend(NID_netscape_comment, comment);
  if (X509_sign(certificate.get(), key, EVP_sha256()) == 0) throw std::runtime_error("OpenSSL refused to sign");
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate.get(), &bytes);
  const std::vector<std::uint8_t> der(bytes, bytes + size);
  OPENSSL_free(bytes);
  return der;
}

}  // namespace sorvex::test
