// A key container is the PEM file "keys/<container>.pem" below the configuration directory, which belongs to the
// agent's user or to root and is readable by its owner alone.
#include "platform/KeyContainer.h"

#include "platform/posix/ReadDescriptor.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace VaroCommunicationAPI::Platform {

namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(OSSL_DECODER_CTX* decoder) const { OSSL_DECODER_CTX_free(decoder); }
};
using KeyPointer = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using ContextPointer = std::unique_ptr<EVP_PKEY_CTX, KeyDeleter>;
using BioPointer = std::unique_ptr<BIO, KeyDeleter>;
using DecoderPointer = std::unique_ptr<OSSL_DECODER_CTX, KeyDeleter>;

/// Several times the size of the largest key in use.
constexpr std::size_t maxKeyFileBytes = 65536;

/// For an encrypted key a PEM reader asks for a passphrase; nobody is there to type one.
int RefusePassphrase(char*, int, int, void*) { return -1; }

/// Returns 0, or the number of the error that prevents opening the container.
int OpenContainer(const std::wstring& containerName, KeyPointer& key) {
  const std::string name = containerName.empty() ? "default" : WindowsAgentCommon::WideToUtf8(containerName);
  const std::string path =
      WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::GetConfigPath()) + "/keys/" + name + ".pem";
  // Without O_NONBLOCK a pipe of that name would block the start indefinitely.
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file == -1) return errno;
  struct stat status {};
  if (fstat(file, &status) == -1) {
    const int error = errno;
    close(file);
    return error;
  }
  // A key that others can read is no longer secret, and one placed there by another user is not the agent's.
  const bool bOwned = status.st_uid == geteuid() || status.st_uid == 0;
  if (!S_ISREG(status.st_mode) || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0 || !bOwned) {
    close(file);
    return EPERM;
  }
  // All at once: from the file itself the library would read byte by byte.
  SecretText content;
  const int error = ReadDescriptor(file, maxKeyFileBytes, content);
  close(file);
  if (error != 0) return error;
  const BioPointer bio(BIO_new_mem_buf(content.Data(), static_cast<int>(content.View().size())));
  if (!bio) return ENOMEM;
  // Only RSA: a reader for every kind of key takes the library three times as long to make.
  EVP_PKEY* decoded = nullptr;
  const DecoderPointer decoder(
      OSSL_DECODER_CTX_new_for_pkey(&decoded, "PEM", nullptr, "RSA", EVP_PKEY_KEYPAIR, nullptr, nullptr));
  if (!decoder) return ENOMEM;
  OSSL_DECODER_CTX_set_pem_password_cb(decoder.get(), RefusePassphrase, nullptr);
  OSSL_DECODER_from_bio(decoder.get(), bio.get());
  key.reset(decoded);
  return key ? 0 : EKEYREJECTED;
}

/// A failure here leaves nothing in the thread's queue of TLS errors, where a later TLS operation would find it.
class ErrorQueueMark {
 public:
  ErrorQueueMark() { ERR_set_mark(); }
  ~ErrorQueueMark() { ERR_pop_to_mark(); }
  ErrorQueueMark(const ErrorQueueMark&) = delete;
  ErrorQueueMark& operator=(const ErrorQueueMark&) = delete;
};

}  // namespace

int DecryptWithContainer(const std::wstring& containerName, std::span<const std::uint8_t> cipherText,
                         SecretText& plainText) {
  plainText.Resize(0);
  const ErrorQueueMark mark;
  KeyPointer key;
  if (const int error = OpenContainer(containerName, key); error != 0) return error;
  const ContextPointer context(EVP_PKEY_CTX_new(key.get(), nullptr));
  std::size_t size = 0;
  if (!context || EVP_PKEY_decrypt_init(context.get()) <= 0 ||
      EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) <= 0 ||
      EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha1()) <= 0 ||
      EVP_PKEY_decrypt(context.get(), nullptr, &size, cipherText.data(), cipherText.size()) <= 0) {
    return EBADMSG;
  }
  SecretText decrypted;
  decrypted.Resize(size);
  if (EVP_PKEY_decrypt(context.get(), reinterpret_cast<unsigned char*>(decrypted.Data()), &size, cipherText.data(),
                       cipherText.size()) <= 0) {
    return EBADMSG;
  }
  decrypted.Resize(size);
  plainText = std::move(decrypted);
  return 0;
}

int ExportRsaPublicKey(const std::wstring& containerName, std::vector<std::uint8_t>& bytes) {
  const ErrorQueueMark mark;
  KeyPointer key;
  if (const int error = OpenContainer(containerName, key); error != 0) return error;
  unsigned char* encoded = nullptr;
  const int size = i2d_PublicKey(key.get(), &encoded);
  if (size < 0) return EKEYREJECTED;
  bytes.assign(encoded, encoded + size);
  OPENSSL_free(encoded);
  return 0;
}

}  // namespace VaroCommunicationAPI::Platform
