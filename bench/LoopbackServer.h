// What the benchmarks' servers on the loopback interface share.
#pragma once

#include <support/TlsIdentity.h>

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>

namespace sorvex::bench {

/// What every client offers unasked, and the strongest of it.
constexpr const char* cipherList = "ECDHE-RSA-AES256-GCM-SHA384";

/// Binds a new socket of that type to a free loopback port; stores the port that the system chose.
int BindLoopback(int type, std::uint16_t& port);

/// TLS 1.2 and one cipher, so that every client has the same work.
std::shared_ptr<SSL_CTX> MakeServerContext(const test::TlsIdentity& identity);

/// Throws the system's error as what went wrong in `what`.
[[noreturn]] void ThrowSystemError(const char* what);

}  // namespace sorvex::bench
