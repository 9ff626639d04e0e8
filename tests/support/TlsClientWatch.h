// Observes the TLS library's state of a connection that this thread has made.
#pragma once

#include <openssl/ssl.h>

namespace sorvex::test {

/// From construction on, tracks the latest TLS connection that the thread makes itself. Servers make theirs in other
/// threads.
class TlsClientWatch {
 public:
  TlsClientWatch() {
    static const int index = SSL_get_ex_new_index(0, nullptr, &Made, nullptr, &Freed);
    static_cast<void>(index);
    m_pYoungest = nullptr;
  }
  TlsClientWatch(const TlsClientWatch&) = delete;
  TlsClientWatch& operator=(const TlsClientWatch&) = delete;

  /// Null when none was made, or when it no longer exists.
  SSL* Youngest() const { return m_pYoungest; }

 private:
  static void Made(void* ssl, void*, CRYPTO_EX_DATA*, int, long, void*) { m_pYoungest = static_cast<SSL*>(ssl); }
  static void Freed(void* ssl, void*, CRYPTO_EX_DATA*, int, long, void*) {
    if (m_pYoungest == ssl) m_pYoungest = nullptr;
  }

  static inline thread_local SSL* m_pYoungest = nullptr;
};

}  // namespace sorvex::test
