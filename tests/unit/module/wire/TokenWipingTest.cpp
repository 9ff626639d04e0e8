// No array that a client gives back still holds the token. Replaces the array allocation of its program.
#include "TestBlock.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view token = "1f0e3dad-99908345-f7439f8f";

std::atomic<int> arraysReleased{0};
std::atomic<int> arraysWithToken{0};

/// In front of each array: its size. As large as an alignment that every type accepts.
constexpr std::size_t prefixBytes = alignof(std::max_align_t);

}  // namespace

void* operator new[](std::size_t size) {
  auto* const memory = static_cast<std::byte*>(std::malloc(prefixBytes + size));
  if (memory == nullptr) throw std::bad_alloc();
  *reinterpret_cast<std::size_t*>(memory) = size;
  return memory + prefixBytes;
}

void operator delete[](void* array) noexcept {
  if (array == nullptr) return;
  std::byte* const memory = static_cast<std::byte*>(array) - prefixBytes;
  const std::string_view content(static_cast<const char*>(array), *reinterpret_cast<std::size_t*>(memory));
  ++arraysReleased;
  if (content.find(token) != std::string_view::npos) ++arraysWithToken;
  std::free(memory);
}

void operator delete[](void* array, std::size_t) noexcept { operator delete[](array); }

namespace SSLConfigServerProto {
namespace {

class TokenWiping : public testing::Test {
 protected:
  TokenWiping() {
    arraysReleased = 0;
    arraysWithToken = 0;
  }

  std::shared_ptr<sorvex::test::FakeRawSocket> m_socket = std::make_shared<sorvex::test::FakeRawSocket>();
  VaroCommunicationAPI::SocketSerializer m_serializer{m_socket};
};

TEST_F(TokenWiping, IsSeenWhereItIsNotDone) {
  WireString string;
  SetWireString(string, token);
  string = {};
  EXPECT_EQ(arraysWithToken, 1);
}

TEST_F(TokenWiping, OfTheClientOfVersion1) {
  {
    m_socket->Say(sorvex::test::HexBytes("00000001 0000000B 00000003 '1.0' 00000000"));
    SSLConfigServerAPIClient_v1 client("agent", std::string(token));
    client.ConnectionEstablishment(m_serializer, CONNECTION_FLAG_NONE);
  }
  EXPECT_NE(m_socket->Sent().find(token), std::string::npos);
  EXPECT_GT(arraysReleased, 0);
  EXPECT_EQ(arraysWithToken, 0);
}

TEST_F(TokenWiping, OfTheClientOfVersion2) {
  {
    m_socket->Say(sorvex::test::HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
    SSLConfigServerAPIClient_v2 client("agent", std::string(token), *MakeBlock("key"));
    client.ConnectionEstablishment(m_serializer, CONNECTION_FLAG_NONE);
  }
  EXPECT_NE(m_socket->Sent().find(token), std::string::npos);
  EXPECT_GT(arraysReleased, 0);
  EXPECT_EQ(arraysWithToken, 0);
}

}  // namespace
}  // namespace SSLConfigServerProto
