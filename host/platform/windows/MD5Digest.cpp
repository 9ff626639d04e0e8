// The TLS library is linked statically and belongs to the module alone: a second copy would have its own state.
#include <SorvexHost/MD5Digest.h>

#include <boost/algorithm/hex.hpp>

// windows.h comes first: bcrypt.h needs its types.
#include <windows.h>

#include <bcrypt.h>

#include <algorithm>
#include <iterator>
#include <limits>

namespace WindowsAgentCommon {

struct MD5Digest::State {
  State() {
    valid = BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_MD5_ALGORITHM, nullptr, 0) == 0 &&
            BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0) == 0;
  }
  ~State() {
    if (hash) BCryptDestroyHash(hash);
    if (algorithm) BCryptCloseAlgorithmProvider(algorithm, 0);
  }

  BCRYPT_ALG_HANDLE algorithm = nullptr;
  BCRYPT_HASH_HANDLE hash = nullptr;
  bool valid = false;
};

MD5Digest::MD5Digest() : m_pState(std::make_unique<State>()) {}
MD5Digest::~MD5Digest() = default;

void MD5Digest::Add(const void* data, std::size_t size) {
  // The system does not change the bytes, despite its declaration.
  auto* bytes = static_cast<UCHAR*>(const_cast<void*>(data));
  while (m_pState->valid && size > 0) {
    const ULONG part = static_cast<ULONG>(std::min<std::size_t>(size, std::numeric_limits<ULONG>::max()));
    m_pState->valid = BCryptHashData(m_pState->hash, bytes, part, 0) == 0;
    bytes += part;
    size -= part;
  }
}

std::string MD5Digest::Finish() {
  UCHAR digest[16];
  if (!m_pState->valid || BCryptFinishHash(m_pState->hash, digest, sizeof digest, 0) != 0) return {};
  std::string text;
  boost::algorithm::hex_lower(std::begin(digest), std::end(digest), std::back_inserter(text));
  return text;
}

}  // namespace WindowsAgentCommon
