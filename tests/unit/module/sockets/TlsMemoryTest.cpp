// What a TLS connection takes from the heap, as the TLS library asks for it. Its allocation functions are replaced for
// this program.
#include "Transports.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>

namespace sorvex::test {
namespace {

/// The largest block that this thread has asked for since it was set to 0. Servers have threads of their own.
thread_local std::size_t largestBlock = 0;

void* Allocate(std::size_t size, const char*, int) {
  largestBlock = std::max(largestBlock, size);
  return std::malloc(size);
}

void* Reallocate(void* block, std::size_t size, const char*, int) {
  largestBlock = std::max(largestBlock, size);
  return std::realloc(block, size);
}

void Free(void* block, const char*, int) { std::free(block); }

// Only before the library has asked for anything.
const bool isWatching = CRYPTO_set_mem_functions(&Allocate, &Reallocate, &Free) == 1;

TEST(TlsMemory, ADestinationHasNoLargeReadBuffer) {
  ASSERT_TRUE(isWatching);
  LoopbackTlsServer server;
  DefaultSSLTCPSocket socket;
  largestBlock = 0;
  socket.Initialize(OverTls::Target(server.Port(), false));
  ASSERT_TRUE(socket.IsConnected());
  EXPECT_EQ(socket.Send("one", 3), 4);
  EXPECT_GT(largestBlock, 0u);
  EXPECT_LT(largestBlock, 32u * 1024);
}

TEST(TlsMemory, ARawSocketReadsThroughALargeOne) {
  ASSERT_TRUE(isWatching);
  LoopbackTlsServer server;
  TrustingSSLTCPRawSocket socket;
  largestBlock = 0;
  socket.Open(L"127.0.0.1", server.Port());
  ASSERT_TRUE(socket.IsConnected());
  EXPECT_GE(largestBlock, 128u * 1024);
}

}  // namespace
}  // namespace sorvex::test
