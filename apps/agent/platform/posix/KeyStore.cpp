// A key container is the PEM file "keys/<container>.pem" below the configuration directory, readable by its owner
// alone.
#include <platform/KeyStore.h>

#include <shared/platform/FileReplacement.h>

#include <host/Paths.h>
#include <host/Text.h>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace sorvex::agent {
namespace {

constexpr unsigned int keyBits = 1024;

struct Deleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter>;

std::filesystem::path PathOf(const std::string& container) {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "keys" /
         ((container.empty() ? "default" : container) + ".pem");
}

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

/// For an encrypted key a PEM reader asks for a passphrase, which the module would not know.
int RefusePassphrase(char*, int, int, void*) { return -1; }

/// Opens what the module would open, and refuses what it would refuse.
Key Open(const std::string& container) {
  const std::string path = PathOf(container).string();
  // Without O_NONBLOCK a pipe of that name would block.
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) Throw(errno, path);
  const std::unique_ptr<BIO, Deleter> bio(BIO_new_fd(file, BIO_CLOSE));
  struct stat status {};
  if (!bio || fstat(file, &status) != 0) Throw(EIO, path);
  if (!S_ISREG(status.st_mode)) Throw(EINVAL, path);
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) Throw(EPERM, path + " can be read by others than its owner");
  Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, RefusePassphrase, nullptr));
  if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) Throw(EKEYREJECTED, path);
  return key;
}

}  // namespace

KeyStore::KeyStore(const std::string& container) : m_container(container) {
  if (container.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    throw std::invalid_argument("no key container can have the name " + container);
  }
}

bool KeyStore::HasKey() const {
  struct stat status {};
  return lstat(PathOf(m_container).c_str(), &status) == 0;
}

void KeyStore::Create(Existing existing) const {
  const std::filesystem::path path = PathOf(m_container);
  if (mkdir(path.parent_path().c_str(), S_IRWXU) != 0 && errno != EEXIST) Throw(errno, path.parent_path().string());

  const Key key(EVP_RSA_gen(keyBits));
  const std::unique_ptr<BIO, Deleter> text(BIO_new(BIO_s_secmem()));
  if (!key || !text || PEM_write_bio_PrivateKey(text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    Throw(ENOTSUP, "OpenSSL cannot make a key");
  }
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  FileReplacement file(path, FileReplacement::Readers::Owner);
  file.Write({data, static_cast<std::size_t>(size)});
  file.Flush();
  file.Commit(existing == Existing::Replace ? FileReplacement::Existing::Replace : FileReplacement::Existing::Keep);
}

std::vector<std::uint8_t> KeyStore::PublicKey() const {
  const Key key = Open(m_container);
  unsigned char* encoded = nullptr;
  const int size = i2d_PublicKey(key.get(), &encoded);
  if (size < 0) Throw(EKEYREJECTED, PathOf(m_container).string());
  const std::vector<std::uint8_t> bytes(encoded, encoded + size);
  OPENSSL_free(encoded);
  return bytes;
}

std::vector<std::uint8_t> KeyStore::Encrypt(const std::vector<std::uint8_t>& plain) const {
  const Key key = Open(m_container);
  const std::unique_ptr<EVP_PKEY_CTX, Deleter> context(EVP_PKEY_CTX_new(key.get(), nullptr));
  std::size_t size = 0;
  if (!context || EVP_PKEY_encrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha1()) <= 0 ||
      EVP_PKEY_encrypt(context.get(), nullptr, &size, plain.data(), plain.size()) <= 0) {
    Throw(ENOTSUP, "OpenSSL cannot encrypt");
  }
  std::vector<std::uint8_t> bytes(size);
  if (EVP_PKEY_encrypt(context.get(), bytes.data(), &size, plain.data(), plain.size()) <= 0) {
    Throw(EMSGSIZE, "encrypting");
  }
  bytes.resize(size);
  return bytes;
}

}  // namespace sorvex::agent
