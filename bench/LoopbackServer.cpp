#include "LoopbackServer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace sorvex::bench {

int BindLoopback(int type, std::uint16_t& port) {
  const int bound = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  if (bound < 0) ThrowSystemError("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(bound, generic, length) != 0) ThrowSystemError("bind");
  if (getsockname(bound, generic, &length) != 0) ThrowSystemError("getsockname");
  port = ntohs(address.sin_port);
  return bound;
}

std::shared_ptr<SSL_CTX> MakeServerContext(const test::TlsIdentity& identity) {
  std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_cipher_list(context.get(), cipherList) != 1 ||
      SSL_CTX_use_certificate(context.get(), identity.Certificate()) != 1 ||
      SSL_CTX_use_PrivateKey(context.get(), identity.Key()) != 1) {
    throw std::runtime_error("cannot set up TLS");
  }
  return context;
}

void ThrowSystemError(const char* what) { throw std::system_error(errno, std::system_category(), what); }

}  // namespace sorvex::bench
