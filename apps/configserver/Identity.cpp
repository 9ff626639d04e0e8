#include <Identity.h>

#include <Text.h>
#include <platform/Platform.h>
#include <shared/platform/FileReplacement.h>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

namespace sorvex::configserver {
namespace {

constexpr long tenYears = 3650L * 24 * 60 * 60;

struct Deleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};

void Require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("OpenSSL cannot make a certificate");
}

void AddExtension(X509* certificate, int kind, const std::string& value) {
  const std::unique_ptr<X509_EXTENSION, Deleter> extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

std::unique_ptr<X509, Deleter> MakeCertificate(EVP_PKEY* key, const std::string& hostName) {
  std::unique_ptr<X509, Deleter> certificate(X509_new());
  Require(certificate != nullptr);
  std::uint32_t serialNumber = 0;
  Require(RAND_bytes(reinterpret_cast<unsigned char*>(&serialNumber), sizeof serialNumber) == 1);
  X509_NAME* const name = X509_get_subject_name(certificate.get());
  Require(X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
          ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serialNumber) == 1 &&
          // Agents whose clocks are slightly slow must accept it too.
          X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -24L * 60 * 60) &&
          X509_gmtime_adj(X509_getm_notAfter(certificate.get()), tenYears) &&
          X509_set_pubkey(certificate.get(), key) == 1 &&
          X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(hostName.data()),
                                     static_cast<int>(hostName.size()), -1, 0) == 1 &&
          X509_set_issuer_name(certificate.get(), name) == 1);
  AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate.get(), NID_subject_alt_name, "DNS:" + hostName + ",DNS:localhost,IP:127.0.0.1,IP:::1");
  Require(X509_sign(certificate.get(), key, EVP_sha256()) != 0);
  return certificate;
}

/// What `write` puts into a BIO. The memory is wiped: it may have held a key.
template <class Write>
std::string PemOf(Write write) {
  const std::unique_ptr<BIO, Deleter> output(BIO_new(BIO_s_secmem()));
  Require(output && write(output.get()) == 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(output.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content{std::istreambuf_iterator<char>(file), {}};
  if (!file || content.empty()) throw std::runtime_error(PathToUtf8(path) + " cannot be read");
  return content;
}

}  // namespace

Identity ReadIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  return {ReadFile(certificateFile), ReadFile(keyFile)};
}

void MakeIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  const std::unique_ptr<EVP_PKEY, Deleter> key(EVP_RSA_gen(2048));
  Require(key != nullptr);
  const std::unique_ptr<X509, Deleter> certificate = MakeCertificate(key.get(), GetHostName());
  std::string keyText = PemOf(
      [&](BIO* output) { return PEM_write_bio_PrivateKey(output, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
  const std::string certificateText = PemOf([&](BIO* output) { return PEM_write_bio_X509(output, certificate.get()); });

  FileReplacement keyReplacement(keyFile, FileReplacement::Readers::Owner);
  keyReplacement.Write(keyText);
  OPENSSL_cleanse(keyText.data(), keyText.size());
  keyReplacement.Commit();
  FileReplacement certificateReplacement(certificateFile);
  certificateReplacement.Write(certificateText);
  certificateReplacement.Commit();
}

}  // namespace sorvex::configserver
