// How the range applies to the TLS library; separate from the range itself, which hosts use without that library.
#include <CommunicationAPI/SSLProtocolList.h>

#include <ace/SSL/SSL_Context.h>
#include <openssl/ssl.h>

namespace VaroCommunicationAPI {

namespace {

struct DisablingOption {
  SSLProtocolList::Protocol protocol;
  std::uint64_t bit;
};

// By name, never by shifting: the bit for TLS 1.1 is higher than the one for TLS 1.2.
constexpr DisablingOption disablingOptions[] = {
    {SSLProtocolList::TLSv1, SSL_OP_NO_TLSv1},
    {SSLProtocolList::TLSv1_1, SSL_OP_NO_TLSv1_1},
    {SSLProtocolList::TLSv1_2, SSL_OP_NO_TLSv1_2},
};

}  // namespace

void SSLProtocolList::applyTo(ACE_SSL_Context& context) const {
  SSL_CTX* const ctx = context.context();
  // The options alone decide: a system-wide configuration may have set narrower bounds.
  SSL_CTX_set_min_proto_version(ctx, 0);
  SSL_CTX_set_max_proto_version(ctx, 0);
  SSL_CTX_set_options(ctx, SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_1 |
                               SSL_OP_NO_TLSv1_3);
  for (const DisablingOption& option : disablingOptions) {
    if (m_min <= option.protocol && option.protocol <= m_max) SSL_CTX_clear_options(ctx, option.bit);
  }
  // TLS 1.0 and 1.1 sign with MD5 and SHA-1, which every level above 0 refuses.
  if (m_min < TLSv1_2) SSL_CTX_set_security_level(ctx, 0);
}

}  // namespace VaroCommunicationAPI
