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
#include <string_view>
#include <utility>

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

/// A key as a PEM text. Wiped at the end of its life.
class KeyText {
 public:
  explicit KeyText(std::string text) : m_text(std::move(text)) {}
  ~KeyText() { OPENSSL_cleanse(m_text.data(), m_text.size()); }
  KeyText(const KeyText&) = delete;
  KeyText& operator=(const KeyText&) = delete;

  const std::string& Get() const { return m_text; }

 private:
  std::string m_text;
};

std::unique_ptr<BIO, Deleter> InputOf(const std::string& text) {
  std::unique_ptr<BIO, Deleter> input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  Require(input != nullptr);
  return input;
}

/// Whether both texts are what they should be, and of the same pair.
bool IsPair(const std::string& certificateText, const std::string& keyText) {
  // An encrypted key is not ours, and nobody is there to type its password.
  char noPassword[] = "";
  const std::unique_ptr<EVP_PKEY, Deleter> key(
      PEM_read_bio_PrivateKey(InputOf(keyText).get(), nullptr, nullptr, noPassword));
  const std::unique_ptr<X509, Deleter> certificate(
      PEM_read_bio_X509(InputOf(certificateText).get(), nullptr, nullptr, nullptr));
  return key && certificate && X509_check_private_key(certificate.get(), key.get()) == 1;
}

void WriteFile(const std::filesystem::path& path, std::string_view text, FileReplacement::Readers readers,
               FileReplacement::Existing existing) {
  FileReplacement file(path, readers);
  file.Write(text);
  file.Flush();
  file.Commit(existing);
}

/// The key's name until its certificate is there.
std::filesystem::path UnfinishedKeyFile(std::filesystem::path keyFile) { return keyFile += ".unfinished"; }

/// Gives the key its own name, with its certificate there.
void NameKey(const std::filesystem::path& keyFile, const KeyText& key) {
  WriteFile(keyFile, key.Get(), FileReplacement::Readers::Owner, FileReplacement::Existing::Keep);
  std::filesystem::remove(UnfinishedKeyFile(keyFile));
}

}  // namespace

Identity ReadIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  return {ReadFile(certificateFile), ReadFile(keyFile)};
}

void MakeIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  const std::unique_ptr<EVP_PKEY, Deleter> key(EVP_RSA_gen(2048));
  Require(key != nullptr);
  const std::unique_ptr<X509, Deleter> certificate = MakeCertificate(key.get(), GetHostName());
  const KeyText keyText(PemOf(
      [&](BIO* output) { return PEM_write_bio_PrivateKey(output, key.get(), nullptr, nullptr, 0, nullptr, nullptr); }));
  const std::string certificateText = PemOf([&](BIO* output) { return PEM_write_bio_X509(output, certificate.get()); });

  // Without its certificate, nobody has seen an unfinished key of an earlier start.
  WriteFile(UnfinishedKeyFile(keyFile), keyText.Get(), FileReplacement::Readers::Owner,
            FileReplacement::Existing::Replace);
  WriteFile(certificateFile, certificateText, FileReplacement::Readers::Usual, FileReplacement::Existing::Keep);
  NameKey(keyFile, keyText);
}

bool FinishIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  const std::filesystem::path unfinishedFile = UnfinishedKeyFile(keyFile);
  if (!std::filesystem::exists(unfinishedFile)) return false;
  const KeyText key(ReadFile(unfinishedFile));
  if (std::filesystem::exists(keyFile)) {
    // The program ended before it removed the other name. A different key is left to the administrator.
    if (KeyText(ReadFile(keyFile)).Get() == key.Get()) std::filesystem::remove(unfinishedFile);
    return false;
  }
  if (!IsPair(ReadFile(certificateFile), key.Get())) return false;
  NameKey(keyFile, key);
  return true;
}

}  // namespace sorvex::configserver
