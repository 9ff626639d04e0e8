// Keys and certificates of the tests' TLS peers.
#pragma once

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>

namespace sorvex::test {

/// A certificate and its key. Copies share them.
class TlsIdentity {
 public:
  /// Self-signed when `issuer` is null. `validFor` is in seconds from now and negative for an expired one. A
  /// self-signed one may issue others, and so may an `isAuthority`.
  explicit TlsIdentity(const std::string& commonName, const TlsIdentity* issuer = nullptr, long validFor = 3600,
                       bool isAuthority = false)
      : m_pKey(NewKey(), &EVP_PKEY_free), m_pCertificate(X509_new(), &X509_free) {
    X509* const certificate = m_pCertificate.get();
    static long serialNumber = 0;
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serialNumber);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -7200);
    X509_gmtime_adj(X509_getm_notAfter(certificate), validFor);
    X509_set_pubkey(certificate, m_pKey.get());
    X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.data()),
                               static_cast<int>(commonName.size()), -1, 0);
    const TlsIdentity& signer = issuer ? *issuer : *this;
    X509_set_issuer_name(certificate, X509_get_subject_name(signer.m_pCertificate.get()));
    if (!issuer || isAuthority) {
      X509_EXTENSION* const extension =
          X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
      X509_add_ext(certificate, extension, -1);
      X509_EXTENSION_free(extension);
    }
    if (X509_sign(certificate, signer.m_pKey.get(), EVP_sha256()) == 0) throw std::runtime_error("cannot sign");
  }

  X509* Certificate() const { return m_pCertificate.get(); }
  EVP_PKEY* Key() const { return m_pKey.get(); }

  std::string CertificatePem() const {
    return Written([this](BIO* output) { PEM_write_bio_X509(output, Certificate()); });
  }
  std::string CertificateDer() const {
    return Written([this](BIO* output) { i2d_X509_bio(output, Certificate()); });
  }
  std::string KeyPem() const {
    return Written(
        [this](BIO* output) { PEM_write_bio_PrivateKey(output, Key(), nullptr, nullptr, 0, nullptr, nullptr); });
  }

 private:
  static EVP_PKEY* NewKey() {
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    if (!key) throw std::runtime_error("cannot make a key");
    return key;
  }

  template <class Writer>
  static std::string Written(Writer writer) {
    const std::unique_ptr<BIO, int (*)(BIO*)> output(BIO_new(BIO_s_mem()), &BIO_free);
    writer(output.get());
    char* data = nullptr;
    const long size = BIO_get_mem_data(output.get(), &data);
    return {data, static_cast<std::size_t>(size)};
  }

  std::shared_ptr<EVP_PKEY> m_pKey;
  std::shared_ptr<X509> m_pCertificate;
};

/// The default certificate of the tests' servers.
inline const TlsIdentity& ServerIdentity() {
  static const TlsIdentity identity("loopback");
  return identity;
}

/// `bytes` in Base64, one line with padding.
inline std::string ToBase64(const std::string& bytes) {
  std::string text(bytes.size() / 3 * 4 + 5, '\0');
  const int size =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  return text;
}

}  // namespace sorvex::test
