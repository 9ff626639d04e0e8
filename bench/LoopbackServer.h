// What the benchmarks' loopback servers share.
#pragma once

#include <support/TlsIdentity.h>

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>

namespace sorvex::bench {

/// The strongest cipher that every client offers by default.
constexpr const char* cipherList = "ECDHE-ECDSA-AES256-GCM-SHA384";

/// Binds a new socket of that type to a free loopback port, stored in `port`.
int BindLoopback(int type, std::uint16_t& port);

/// TLS 1.2 and one cipher, so that every client has the same work.
std::shared_ptr<SSL_CTX> MakeServerContext(const test::TlsIdentity& identity);

/// Throws the system's last error; `what` says what failed.
[[noreturn]] void ThrowSystemError(const char* what);

}  // namespace sorvex::bench
