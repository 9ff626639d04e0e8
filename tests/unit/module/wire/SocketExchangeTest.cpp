// The clients over the raw sockets, with a server that answers in the smallest pieces.
#include "TestBlock.h"
#include "wire/ProtocolException.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include "support/HexBytes.h"
#include "support/RecordingLogger.h"
#include "support/WireRequest.h"
#include "unit/module/sockets/Transports.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SSLConfigServerProto {
namespace {

using namespace sorvex::test;
using VaroCommunicationAPI::SocketSerializer;
using WindowsAgentCommon::IRawSocket;
using WindowsAgentCommon::SocketException;

template <class Peer>
void WriteByteByByte(Peer& peer, std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) peer.Write(bytes.substr(i, 1));
}

constexpr const char* configurationResponse2 =
    "00000004 00000061 00000003 '2.0' 00000000 00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
    "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'";

template <class Transport>
class SocketExchange : public testing::Test {
 protected:
  /// Connects to a server that plays `script` with the connection and then closes it.
  template <class Script>
  void Start(Script script) {
    m_server.emplace([script = std::move(script)](auto&, auto& peer, int) {
      peer.SetNoDelay();
      script(peer);
      peer.Close();
    });
    m_socket = std::make_shared<typename Transport::RawSocket>();
    m_socket->Open(L"127.0.0.1", m_server->Port());
    EXPECT_TRUE(m_socket->IsConnected());
    m_serializer = std::make_unique<SocketSerializer>(m_socket);
  }

  RecordingLogger m_log;
  std::optional<typename Transport::Server> m_server;
  std::shared_ptr<IRawSocket> m_socket;
  std::unique_ptr<SocketSerializer> m_serializer;
  std::shared_ptr<ACE_Message_Block> m_block;
  std::string m_strMD5;
};

TYPED_TEST_SUITE(SocketExchange, Transports);

TYPED_TEST(SocketExchange, ReadsResponsesOfVersion1ThatComeByteByByte) {
  this->Start([](auto& peer) {
    for (const char* response :
         {"00000001 0000000B 00000003 '1.0' 00000000", "00000002 0000000B 00000003 '1.0' 00000001",
          "00000003 0000000B 00000003 '1.0' 00000007", "00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'",
          "00000005 00000012 00000003 '1.0' 00000000 00000003 'key'"}) {
      ReadRequest(peer);
      WriteByteByByte(peer, HexBytes(response));
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
  this->Start([](auto& peer) {
    for (const char* response :
         {"00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'", "00000002 0000000B 00000003 '2.0' 00000001",
          "00000003 0000000B 00000003 '2.0' 00000007", configurationResponse2,
          "00000005 00000013 00000003 '2.0' 00000005 00000000 00000000"}) {
      ReadRequest(peer);
      WriteByteByByte(peer, HexBytes(response));
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
  this->Start([content](auto& peer) {
    ReadRequest(peer);
    peer.Write(HexBytes("00000004 004C4B4F 00000003 '1.0' 00000000 004C4B40") + content);
  });
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_EQ(client.ConfigurationUpdate(*this->m_serializer, ""), 0U);
  ASSERT_TRUE(client.GetConfigurationData(this->m_block, this->m_strMD5));
  EXPECT_EQ(Content(this->m_block), content);
}

/// A response that is refused, up to the byte where that happens.
struct Refusal {
  const char* name;
  WireProtocol protocol;
  std::uint32_t (ISSLConfigServerAPIClient::*update)(WindowsAgentCommon::ISerializer&, const std::string&);
  const char* response;  ///< to `update`, or to the establishment of the connection when there is none
  const char* lastLine;
  const char* failedField = nullptr;  ///< logged after that line
};

const Refusal refusals[] = {
    {"type of version 1", WireProtocol::Version1, nullptr, "00000002 0000000B 00000003 '1.0' 00000000",
     "Debug Received bad/junk response from configuration server"},
    {"type of version 2", WireProtocol::Version2, nullptr, "00000003",
     "Debug Received bad/junk response from configuration server"},
    {"server of version 1", WireProtocol::Version2, nullptr, "00000001",
     "Debug Receiving connection establishment response..."},
    {"record version", WireProtocol::Version1, nullptr, "00000001 0000000B 00100001",
     "Info Bad string read; given length exceeded maximum string clamp length of 1048576.",
     "Debug Failed at the field recordVersion of ConnectionEstablishmentResponse."},
    {"server's version", WireProtocol::Version2, nullptr, "00000006 00000012 00000003 '2.0' 00000000 00100001",
     "Info Bad string read; given length exceeded maximum string clamp length of 1048576.",
     "Debug Failed at the field wireProtocolVersion of ConnectionEstablishmentResponse2."},
    {"configuration", WireProtocol::Version1, &ISSLConfigServerAPIClient::ConfigurationUpdate,
     "00000004 00000012 00000003 '1.0' 00000000 06400001",
     "Info Bad data read; given length exceeded maximum binary clamp length of 104857600.",
     "Debug Failed at the field configurationData of ConfigurationUpdateResponse."},
    {"code", WireProtocol::Version2, &ISSLConfigServerAPIClient::CodeUpdate,
     "00000005 00000012 00000003 '2.0' 00000000 06400001 00000000",
     "Info Bad data read; given length exceeded maximum binary clamp length of 104857600.",
     "Debug Failed at the field codeData of CodeUpdateResponse."},
    {"digest", WireProtocol::Version2, &ISSLConfigServerAPIClient::CodeUpdate,
     "00000005 00000012 00000003 '2.0' 00000000 00000003 00000021",
     "Info Bad string read; given length exceeded maximum string clamp length of 32.",
     "Debug Failed at the field codeData of CodeUpdateResponse."},
};

TYPED_TEST(SocketExchange, RefusesResponsesThatComeByteByByte) {
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    this->Start([&refusal](auto& peer) {
      ReadRequest(peer);
      WriteByteByByte(peer, HexBytes(refusal.response));
      // Until the client has ended the connection: it waits for nothing more.
      peer.ReadAll();
    });
    this->m_serializer->SetReadTimeout(20000);
    std::unique_ptr<ISSLConfigServerAPIClient> client;
    if (refusal.protocol == WireProtocol::Version1) {
      client = std::make_unique<SSLConfigServerAPIClient_v1>("agent", "token");
    } else {
      client = std::make_unique<SSLConfigServerAPIClient_v2>("agent", "token", *MakeBlock("key"));
    }
    if (refusal.update) {
      EXPECT_THROW(((*client).*refusal.update)(*this->m_serializer, ""), SocketException);
    } else {
      EXPECT_THROW(client->ConnectionEstablishment(*this->m_serializer, CONNECTION_FLAG_NONE), SocketException);
    }
    std::vector<std::string> lines = this->m_log->Lines("Code.SSLConfigServerAPIClient");
    if (refusal.failedField) {
      EXPECT_EQ(lines.back(), refusal.failedField);
      lines.pop_back();
    }
    EXPECT_EQ(lines.back(), refusal.lastLine);
    this->m_socket->Close();
  }
}

TYPED_TEST(SocketExchange, ThrowsWhenTheServerClosesInsideAResponse) {
  this->Start([](auto& peer) {
    ReadRequest(peer);
    peer.Write(HexBytes("00000003 0000000B 0000"));
  });
  SSLConfigServerAPIClient_v1 client("agent", "token");
  EXPECT_THROW(client.UpdateStatus(*this->m_serializer, 1, 2), SocketException);
}

TYPED_TEST(SocketExchange, ThrowsWhenTheServerIsSilent) {
  this->Start([](auto& peer) {
    ReadRequest(peer);
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
