#include "ApplicationKey.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <memory>
#include <stdexcept>

namespace sorvex::test {

namespace {

void Require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("OpenSSL refused to make the test's key or token");
}

}  // namespace

ApplicationKey::ApplicationKey(unsigned int bits) : m_pKey(EVP_RSA_gen(bits)) { Require(m_pKey != nullptr); }

ApplicationKey::~ApplicationKey() { EVP_PKEY_free(m_pKey); }

const ApplicationKey& ApplicationKey::Of(unsigned int bits) {
  static const ApplicationKey small(1024);
  static const ApplicationKey usual(2048);
  return bits == 1024 ? small : usual;
}

std::string ApplicationKey::Pem() const {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), &BIO_free);
  Require(bio && PEM_write_bio_PrivateKey(bio.get(), m_pKey, nullptr, nullptr, 0, nullptr, nullptr) == 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::vector<std::uint8_t> ApplicationKey::Encrypt(std::string_view text) const {
  const std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> context(EVP_PKEY_CTX_new(m_pKey, nullptr),
                                                                       &EVP_PKEY_CTX_free);
  const auto* const input = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t size = 0;
  Require(context && EVP_PKEY_encrypt_init(context.get()) == 1 &&
          EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) == 1 &&
          EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha1()) == 1 &&
          EVP_PKEY_encrypt(context.get(), nullptr, &size, input, text.size()) == 1);
  std::vector<std::uint8_t> bytes(size);
  Require(EVP_PKEY_encrypt(context.get(), bytes.data(), &size, input, text.size()) == 1);
  bytes.resize(size);
  return bytes;
}

std::string ApplicationKey::Secure(std::string_view text) const { return EncodeBase64(Encrypt(text)); }

std::string EncodeBase64(const std::vector<std::uint8_t>& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(), static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace sorvex::test
