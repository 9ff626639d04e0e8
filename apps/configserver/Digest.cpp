#include <Digest.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace sorvex::configserver {
namespace {

void Require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("this system's OpenSSL has no MD5");
}

char LowerCase(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

}  // namespace

Digest::Digest() : m_pContext(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
  Require(m_pContext && EVP_DigestInit_ex(m_pContext.get(), EVP_md5(), nullptr) == 1);
}

void Digest::Add(std::string_view bytes) {
  Require(EVP_DigestUpdate(m_pContext.get(), bytes.data(), bytes.size()) == 1);
}

std::string Digest::Finish() {
  std::array<unsigned char, 16> digest{};
  Require(EVP_DigestFinal_ex(m_pContext.get(), digest.data(), nullptr) == 1);
  std::string text;
  for (const unsigned char byte : digest) {
    constexpr std::string_view digits = "0123456789abcdef";
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::string DigestOf(std::string_view bytes) {
  Digest digest;
  digest.Add(bytes);
  return digest.Finish();
}

bool AreSameDigest(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, LowerCase, LowerCase);
}

}  // namespace sorvex::configserver
