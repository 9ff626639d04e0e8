#include <Digest.h>

#include <openssl/evp.h>
#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <array>
#include <iterator>
#include <locale>
#include <stdexcept>

namespace sorvex::configserver {
namespace {

void Require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("this system's OpenSSL has no MD5");
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
  boost::algorithm::hex_lower(digest, std::back_inserter(text));
  return text;
}

std::string DigestOf(std::string_view bytes) {
  Digest digest;
  digest.Add(bytes);
  return digest.Finish();
}

bool AreSameDigest(std::string_view left, std::string_view right) {
  return boost::algorithm::iequals(left, right, std::locale::classic());
}

}  // namespace sorvex::configserver
