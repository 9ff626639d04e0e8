#include <SorvexHost/MD5Digest.h>

#include <openssl/evp.h>
#include <boost/algorithm/hex.hpp>

#include <iterator>

namespace WindowsAgentCommon {

struct MD5Digest::State {
  ~State() { EVP_MD_CTX_free(context); }

  EVP_MD_CTX* context = EVP_MD_CTX_new();
  bool valid = context != nullptr && EVP_DigestInit_ex(context, EVP_md5(), nullptr) == 1;
};

MD5Digest::MD5Digest() : m_pState(std::make_unique<State>()) {}
MD5Digest::~MD5Digest() = default;

void MD5Digest::Add(const void* data, std::size_t size) {
  m_pState->valid = m_pState->valid && EVP_DigestUpdate(m_pState->context, data, size) == 1;
}

std::string MD5Digest::Finish() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!m_pState->valid || EVP_DigestFinal_ex(m_pState->context, digest, &length) != 1) return {};
  std::string text;
  boost::algorithm::hex_lower(digest, digest + length, std::back_inserter(text));
  return text;
}

}  // namespace WindowsAgentCommon
