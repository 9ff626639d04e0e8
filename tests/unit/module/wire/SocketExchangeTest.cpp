// The clients over the raw sockets, with a server that answers in the smallest pieces.
#include "TestBlock.h"
#include "sockets/SSLTCPRawSocket.h"
#include "sockets/TCPRawSocket.h"
#include "wire/ProtocolException.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include "support/HexBytes.h"
#include "support/LoopbackTlsServer.h"
#include "support/RecordingLogger.h"
#include "support/TemporaryDirectory.h"

#include <host/Text.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace SSLConfigServerProto {
namespace {

using namespace sorvex::test;
using VaroCommunicationAPI::SocketSerializer;
using VaroCommunicationAPI::SSLTCPRawSocket;
using VaroCommunicationAPI::TCPRawSocket;
using WindowsAgentCommon::IRawSocket;
using WindowsAgentCommon::SocketException;

/// What a server does with a connection, whatever that runs over.
class Peer {
 public:
  virtual ~Peer() = default;
  virtual std::string ReadExactly(std::size_t count) = 0;
  virtual void Write(std::string_view bytes) = 0;

  /// Reads one request by its header.
  std::string ReadRequest() {
    std::string request = ReadExactly(8);
    std::size_t rest = 0;
    for (std::size_t i = 4; i < request.size(); ++i) rest = rest * 256 + static_cast<unsigned char>(request[i]);
    return request + ReadExactly(rest);
  }

  void WriteByteByByte(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size(); ++i) Write(bytes.substr(i, 1));
  }
};

/// At its end the server closes the connection.
using Script = std::function<void(Peer&)>;

template <class Connection>
class PeerOver : public Peer {
 public:
  explicit PeerOver(Connection& connection) : m_connection(connection) {}
  std::string ReadExactly(std::size_t count) override { return m_connection.ReadExactly(count); }
  void Write(std::string_view bytes) override { m_connection.Write(bytes); }

 private:
  Connection& m_connection;
};

void Play(const Script& script, Peer& peer, ServerConnection& connection) {
  // Each write is a segment of its own.
  connection.Socket().set_option(tcp::no_delay(true));
  script(peer);
  connection.Close();
}

struct OverTcp {
  explicit OverTcp(Script script)
      : m_server([script = std::move(script)](LoopbackTcpServer&, ServerConnection& connection, int) {
          PeerOver<ServerConnection> peer(connection);
          Play(script, peer, connection);
        }) {}

  std::shared_ptr<IRawSocket> MakeSocket() { return std::make_shared<TCPRawSocket>(); }

  LoopbackTcpServer m_server;
};

struct OverTls {
  explicit OverTls(Script script)
      : m_server([script = std::move(script)](LoopbackTlsServer&, TlsServerSession& session, int) {
          PeerOver<TlsServerSession> peer(session);
          Play(script, peer, session.Connection());
        }) {}

  std::shared_ptr<IRawSocket> MakeSocket() {
    auto socket = std::make_shared<SSLTCPRawSocket>(VaroCommunicationAPI::SSLProtocolList());
    socket->SetCertificateFile(
        WindowsAgentCommon::PathToWide(m_directory.Write("trusted.pem", ServerIdentity().CertificatePem())));
    return socket;
  }

  TemporaryDirectory m_directory{"exchange"};
  LoopbackTlsServer m_server;
};

template <class Transport>
class SocketExchange : public testing::Test {
 protected:
  void Start(Script script) {
    m_transport = std::make_unique<Transport>(std::move(script));
    m_socket = m_transport->MakeSocket();
    m_socket->Open(L"127.0.0.1", m_transport->m_server.Port());
    EXPECT_TRUE(m_socket->IsConnected());
    m_serializer = std::make_unique<SocketSerializer>(m_socket);
  }

  RecordingLogger m_log;
  std::unique_ptr<Transport> m_transport;
  std::shared_ptr<IRawSocket> m_socket;
  std::unique_ptr<SocketSerializer> m_serializer;
  std::shared_ptr<ACE_Message_Block> m_block;
  std::string m_strMD5;
};

using Transports = testing::Types<OverTcp, OverTls>;
TYPED_TEST_SUITE(SocketExchange, Transports);

TYPED_TEST(SocketExchange, ReadsResponsesOfVersion1ThatComeByteByByte) {
  this->Start([](Peer& peer) {
    for (const char* response :
         {"00000001 0000000B 00000003 '1.0' 00000000", "00000002 0000000B 00000003 '1.0' 00000001",
          "00000003 0000000B 00000003 '1.0' 00000007", "00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'",
          "00000005 00000012 00000003 '1.0' 00000000 00000003 'key'"}) {
      peer.ReadRequest();
      peer.WriteByteByByte(HexBytes(response));
    }
  });
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_EQ(client.ConnectionEstablishment(*this->m_serializer, CONNECTION_FLAG_NONE), 0U);
  EXPECT_EQ(client.RegisterInstance(*this->m_serializer, "os", "agent", "parameters"), 1U);
  EXPECT_EQ(client.UpdateStatus(*this->m_serializer, 1, 2), 7U);
  EXPECT_EQ(client.ConfigurationUpdate(*this->m_serializer, ""), 0U);
  EXPECT_EQ(client.CodeUpdate(*this->m_serializer, "1"), 0U);
  ASSERT_TRUE(client.GetConfigurationData(this->m_block, this->m_strMD5));
  EXPECT_EQ(Content(this->m_block), "abc");
  ASSERT_TRUE(client.GetCodeData(this->m_block, this->m_strMD5));
  EXPECT_EQ(Content(this->m_block), "key");
}

TYPED_TEST(SocketExchange, ReadsResponsesOfVersion2ThatComeByteByByte) {
  this->Start([](Peer& peer) {
    for (const char* response :
         {"00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'", "00000002 0000000B 00000003 '2.0' 00000001",
          "00000003 0000000B 00000003 '2.0' 00000007",
          "00000004 00000061 00000003 '2.0' 00000000 00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
          "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'",
          "00000005 00000013 00000003 '2.0' 00000005 00000000 00000000"}) {
      peer.ReadRequest();
      peer.WriteByteByByte(HexBytes(response));
    }
  });
  SSLConfigServerAPIClient_v2 client("agent", "token", *MakeBlock("key"));
  EXPECT_EQ(client.ConnectionEstablishment(*this->m_serializer, CONNECTION_FLAG_NONE), 0U);
  EXPECT_EQ(client.RegisterInstance(*this->m_serializer, "os", "agent", "parameters"), 1U);
  EXPECT_EQ(client.UpdateStatus(*this->m_serializer, 1, 2), 7U);
  EXPECT_EQ(client.ConfigurationUpdate(*this->m_serializer, ""), 0U);
  EXPECT_EQ(client.CodeUpdate(*this->m_serializer, "1"), 5U);
  ASSERT_TRUE(client.GetServerPublicKey(this->m_block));
  EXPECT_EQ(Content(this->m_block), "key");
  ASSERT_TRUE(client.GetConfigurationData(this->m_block, this->m_strMD5));
  EXPECT_EQ(Content(this->m_block), "abc");
  EXPECT_EQ(this->m_strMD5, "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_FALSE(client.GetCodeData(this->m_block, this->m_strMD5));
}

TYPED_TEST(SocketExchange, ReadsAConfigurationOfManySegments) {
  // 5,000,000 bytes.
  const std::string content(5'000'000, 'c');
  this->Start([content](Peer& peer) {
    peer.ReadRequest();
    peer.Write(HexBytes("00000004 004C4B4F 00000003 '1.0' 00000000 004C4B40") + content);
  });
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_EQ(client.ConfigurationUpdate(*this->m_serializer, ""), 0U);
  ASSERT_TRUE(client.GetConfigurationData(this->m_block, this->m_strMD5));
  EXPECT_EQ(Content(this->m_block), content);
}

TYPED_TEST(SocketExchange, ThrowsWhenTheServerClosesInsideAResponse) {
  this->Start([](Peer& peer) {
    peer.ReadRequest();
    peer.Write(HexBytes("00000003 0000000B 0000"));
  });
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_THROW(client.UpdateStatus(*this->m_serializer, 1, 2), SocketException);
}

TYPED_TEST(SocketExchange, ThrowsWhenTheServerIsSilent) {
  this->Start([](Peer& peer) {
    peer.ReadRequest();
    peer.Write(HexBytes("00000003"));
    peer.ReadExactly(1);
  });
  this->m_serializer->SetReadTimeout(50);
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_THROW(client.UpdateStatus(*this->m_serializer, 1, 2), SocketException);
  EXPECT_EQ(this->m_socket->GetLastResultCode(), 137);
}

}  // namespace
}  // namespace SSLConfigServerProto
