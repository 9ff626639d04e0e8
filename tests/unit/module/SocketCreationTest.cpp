// Every set of flags with both operations that make sockets.
#include "factory/ConnectionFactory.h"
#include "sockets/SSLTCPRawSocket.h"
#include "sockets/SSLTCPSocket.h"
#include "sockets/TCPRawSocket.h"
#include "sockets/TCPSocket.h"
#include "sockets/UDPSocket.h"

#include <host/Exceptions.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>

namespace sorvex::test {
namespace {

using namespace VaroCommunicationAPI;
using WindowsAgentCommon::IRawSocket;
using WindowsAgentCommon::OperationNotSupportedException;

constexpr unsigned int datagram = 1;
constexpr unsigned int stream = 2;
constexpr unsigned int ignored = 4;
constexpr unsigned int internet = 8;
constexpr unsigned int raw = 16;

/// The result of a call: a class, or the line of the exception.
struct Expected {
  const std::type_info* type = nullptr;
  int line = 0;
};

Expected PlainSocket(unsigned int flags) {
  if ((flags & datagram) != 0 && (flags & internet) != 0) {
    if ((flags & raw) != 0) return {nullptr, 297};
    return {&typeid(UDPSocket)};
  }
  if ((flags & stream) == 0 || (flags & internet) == 0) return {nullptr, 310};
  return {(flags & raw) != 0 ? &typeid(TCPRawSocket) : &typeid(TCPSocket)};
}

Expected TlsSocket(unsigned int flags) {
  if ((flags & datagram) != 0 && (flags & internet) != 0) return {nullptr, 318};
  if ((flags & stream) == 0 || (flags & internet) == 0) return {nullptr, 331};
  return {(flags & raw) != 0 ? &typeid(SSLTCPRawSocket) : &typeid(SSLTCPSocket)};
}

class SocketCreation : public testing::TestWithParam<int> {
 protected:
  template <class Create>
  void Check(const Expected& expected, const std::string& function, Create create) {
    const std::shared_ptr<IRawSocket> before = std::make_shared<TCPRawSocket>();
    std::shared_ptr<IRawSocket> socket = before;
    try {
      create(socket);
      ASSERT_NE(expected.type, nullptr) << "nothing was thrown";
      const IRawSocket& made = *socket;
      EXPECT_EQ(typeid(made), *expected.type);
      EXPECT_NE(socket, before);
      EXPECT_EQ(socket.use_count(), 1);
      EXPECT_FALSE(socket->IsOpen());
    } catch (const OperationNotSupportedException& exception) {
      EXPECT_EQ(exception.GetLine(), expected.line);
      EXPECT_EQ(exception.GetSourceFile(), "ConnectionFactory");
      EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::ConnectionFactory::" + function);
      EXPECT_EQ(socket, before);
    }
  }

  ConnectionFactory m_factory;
};

TEST_P(SocketCreation, OfPlainSocketsFollowsTheFlags) {
  const auto flags = static_cast<std::uint8_t>(GetParam());
  Check(PlainSocket(flags), "CreateSocket",
        [&](std::shared_ptr<IRawSocket>& socket) { m_factory.CreateSocket(flags, socket); });
}

TEST_P(SocketCreation, OfTlsSocketsFollowsTheFlags) {
  const auto flags = static_cast<std::uint8_t>(GetParam());
  Check(TlsSocket(flags), "CreateSSLSocket",
        [&](std::shared_ptr<IRawSocket>& socket) { m_factory.CreateSSLSocket(flags, SSLProtocolList(), socket); });
}

TEST_P(SocketCreation, IgnoresOtherFlags) {
  const auto flags = static_cast<std::uint8_t>(static_cast<unsigned int>(GetParam()) | 0xE0 | ignored);
  Check(PlainSocket(flags), "CreateSocket",
        [&](std::shared_ptr<IRawSocket>& socket) { m_factory.CreateSocket(flags, socket); });
}

INSTANTIATE_TEST_SUITE_P(AllFlags, SocketCreation, testing::Range(0, 32));

// The same table, as numbers.
TEST(SocketCreationFlags, AreTheseNumbers) {
  ConnectionFactory factory;
  std::shared_ptr<IRawSocket> socket;
  factory.CreateSocket(9, socket);
  EXPECT_NE(dynamic_cast<UDPSocket*>(socket.get()), nullptr);
  factory.CreateSocket(11, socket);
  EXPECT_NE(dynamic_cast<UDPSocket*>(socket.get()), nullptr);
  factory.CreateSocket(10, socket);
  EXPECT_NE(dynamic_cast<TCPSocket*>(socket.get()), nullptr);
  factory.CreateSocket(26, socket);
  EXPECT_NE(dynamic_cast<TCPRawSocket*>(socket.get()), nullptr);
  factory.CreateSSLSocket(26, SSLProtocolList(), socket);
  EXPECT_NE(dynamic_cast<SSLTCPRawSocket*>(socket.get()), nullptr);
  factory.CreateSSLSocket(10, SSLProtocolList(), socket);
  EXPECT_NE(dynamic_cast<SSLTCPSocket*>(socket.get()), nullptr);
}

}  // namespace
}  // namespace sorvex::test
