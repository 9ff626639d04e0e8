// MD5, with which agents compare configurations and patches.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace sorvex::configserver {

/// The digest of bytes that arrive in parts.
class Digest {
 public:
  Digest();
  void Add(std::string_view bytes);
  /// 32 lower-case hexadecimal characters. Ends the digest.
  std::string Finish();

 private:
  std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> m_pContext;
};

std::string DigestOf(std::string_view bytes);

/// Whether two texts are the same digest, ignoring case.
bool AreSameDigest(std::string_view left, std::string_view right);

}  // namespace sorvex::configserver
