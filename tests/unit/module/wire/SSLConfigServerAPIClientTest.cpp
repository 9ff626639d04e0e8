// What the clients of both versions have in common, and how they differ.
#include "wire/ProtocolMismatchException.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"
#include "wire/TimeZoneText.h"

#include "TestBlock.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "support/LoopbackTcpServer.h"
#include "support/RecordingLogger.h"

#include <ace/Malloc_Allocator.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace SSLConfigServerProto {
namespace {

using sorvex::test::FakeRawSocket;
using sorvex::test::HexBytes;
using sorvex::test::RecordingLogger;
using WindowsAgentCommon::SocketException;
using Strings = std::vector<std::string>;

const std::string md5OfAbc = "900150983cd24fb0d6963f7d28e17f72";

/// 100 MiB.
std::string DataAtTheClamp() { return std::string().append(104857600, 'd'); }

std::unique_ptr<ISSLConfigServerAPIClient> MakeClient(WireProtocol protocol) {
  if (protocol == WireProtocol::Version1) return std::make_unique<SSLConfigServerAPIClient_v1>("agent", "token");
  return std::make_unique<SSLConfigServerAPIClient_v2>("agent", "token", *MakeBlock("key"));
}

/// A client with a scripted server.
class Conversation {
 public:
  explicit Conversation(WireProtocol protocol, const std::string& answer = {})
      : m_client(MakeClient(protocol)), m_socket(std::make_shared<FakeRawSocket>(answer)), m_serializer(m_socket) {}

  std::unique_ptr<ISSLConfigServerAPIClient> m_client;
  std::shared_ptr<FakeRawSocket> m_socket;
  VaroCommunicationAPI::SocketSerializer m_serializer;
};

struct ExchangeCase {
  const char* name;
  WireProtocol protocol;
  std::function<std::uint32_t(Conversation&)> call;
  std::string request;   ///< empty where it depends on time and machine
  std::string response;  ///< result code 7
  std::string sending, sent, receiving, received;

  Strings AllLines() const { return {"Debug " + sending, "Debug " + sent, "Debug " + receiving, "Debug " + received}; }
  bool IsEstablishment() const { return name == std::string("ConnectionEstablishment"); }
};

std::ostream& operator<<(std::ostream& out, const ExchangeCase& exchange) {
  return out << exchange.name << " of " << WireVersionText(exchange.protocol);
}

std::uint32_t Establish(Conversation& conversation) {
  return conversation.m_client->ConnectionEstablishment(conversation.m_serializer, CONNECTION_FLAG_NONE);
}
std::uint32_t Register(Conversation& conversation) {
  return conversation.m_client->RegisterInstance(conversation.m_serializer, "Linux 6.1", "7.2.5", "");
}
std::uint32_t UpdateStatus(Conversation& conversation) {
  return conversation.m_client->UpdateStatus(conversation.m_serializer, 0x01020304, 0xFFFFFFFE);
}
std::uint32_t UpdateConfiguration(Conversation& conversation) {
  return conversation.m_client->ConfigurationUpdate(conversation.m_serializer, "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF");
}
std::uint32_t UpdateCode(Conversation& conversation) {
  return conversation.m_client->CodeUpdate(conversation.m_serializer, "7.2.5");
}

std::vector<ExchangeCase> ExchangeCases() {
  std::vector<ExchangeCase> cases;
  for (const WireProtocol protocol : {WireProtocol::Version1, WireProtocol::Version2}) {
    const bool bVersion2 = protocol == WireProtocol::Version2;
    const std::string version = HexBytes(bVersion2 ? "00000003 '2.0'" : "00000003 '1.0'");
    const auto record = [&](const char* start, const char* rest) { return HexBytes(start) + version + HexBytes(rest); };
    cases.push_back(
        {"ConnectionEstablishment", protocol, Establish,
         bVersion2 ? "" : record("00000001 00000020", "00000003 '1.0' 00000005 'agent' 00000005 'token'"),
         bVersion2 ? record("00000006 00000012", "00000007 00000003 '2.0'") : record("00000001 0000000B", "00000007"),
         "Sending connection establishment request...", "Sent connection establishment request.",
         "Receiving connection establishment response...",
         bVersion2 ? "Received connection establishment response (result code 7, wire versions cli:2.0 --> "
                     "svr:2.0)"
                   : "Received connection establishment response (result code 7)"});
    cases.push_back({"RegisterInstance", protocol, Register,
                     record("00000002 00000021", "00000009 'Linux 6.1' 00000005 '7.2.5' 00000000"),
                     record("00000002 0000000B", "00000007"), "Sending register instance request...",
                     "Sent register instance request.", "Receiving register instance response...",
                     "Received register instance response (result code 7)"});
    cases.push_back({"UpdateStatus", protocol, UpdateStatus, record("00000003 0000000F", "01020304 FFFFFFFE"),
                     record("00000003 0000000B", "00000007"), "Sending update status request...",
                     "Sent update status request.", "Receiving update status response...",
                     "Received update status response (result code 7)"});
    cases.push_back({"ConfigurationUpdate", protocol, UpdateConfiguration,
                     record("00000004 0000002B", "00000020 'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF'"),
                     bVersion2 ? record("00000004 00000061",
                                        "00000007 00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
                                        "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'")
                               : record("00000004 00000012", "00000007 00000003 'abc'"),
                     "Sending configuration update request...", "Sent configuration update request.",
                     "Receiving configuration update response...",
                     "Received configuration update response (result code 7)"});
    cases.push_back(
        {"CodeUpdate", protocol, UpdateCode, record("00000005 00000010", "00000005 '7.2.5'"),
         bVersion2 ? record("00000005 00000036", "00000007 00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'")
                   : record("00000005 00000012", "00000007 00000003 'abc'"),
         "Sending code update request...", "Sent code update request.", "Receiving code update response...",
         "Received code update response (result code 7)"});
  }
  return cases;
}

class Exchanges : public testing::TestWithParam<ExchangeCase> {
 protected:
  std::string LoggerName() const {
    return GetParam().protocol == WireProtocol::Version1 ? "Code.SSLConfigServerAPIClient_v1.agent"
                                                         : "Code.SSLConfigServerAPIClient_v2.agent";
  }

  RecordingLogger m_log;
};

TEST_P(Exchanges, WritesTheRequestAndReturnsTheResultCode) {
  Conversation conversation(GetParam().protocol, GetParam().response + "more");
  EXPECT_EQ(GetParam().call(conversation), 7U);
  if (!GetParam().request.empty()) {
    EXPECT_EQ(conversation.m_socket->Sent(), GetParam().request);
  }
  EXPECT_EQ(conversation.m_socket->Unread(), 4U);
}

TEST_P(Exchanges, LogsFourLinesInOrderOnTheClientsLogger) {
  Conversation conversation(GetParam().protocol, GetParam().response);
  GetParam().call(conversation);
  EXPECT_EQ(m_log->Lines(LoggerName()), GetParam().AllLines());
  EXPECT_EQ(m_log->Lines().size(), 4U);
}

TEST_P(Exchanges, WritesAllBeforeItReads) {
  Conversation conversation(GetParam().protocol, GetParam().response);
  GetParam().call(conversation);
  bool bReading = false;
  for (const FakeRawSocket::Call& call : conversation.m_socket->Calls()) {
    if (call.kind == FakeRawSocket::Call::Kind::Receive) {
      bReading = true;
    } else {
      EXPECT_FALSE(bReading);
    }
  }
  EXPECT_TRUE(bReading);
}

TEST_P(Exchanges, RepeatsTheSameRequest) {
  Conversation conversation(GetParam().protocol, GetParam().response + GetParam().response);
  GetParam().call(conversation);
  conversation.m_socket->Clear();
  EXPECT_EQ(GetParam().call(conversation), 7U);
  if (!GetParam().request.empty()) {
    EXPECT_EQ(conversation.m_socket->Sent(), GetParam().request);
  }
}

TEST_P(Exchanges, ThrowWhereverTheResponseIsCut) {
  for (std::size_t cut = 0; cut < GetParam().response.size(); ++cut) {
    m_log->Clear();
    Conversation conversation(GetParam().protocol, GetParam().response.substr(0, cut));
    EXPECT_THROW(GetParam().call(conversation), SocketException) << cut;
    Strings lines = GetParam().AllLines();
    lines.pop_back();
    EXPECT_EQ(m_log->Lines("Code.SSLConfigServerAPIClient_v"), lines) << cut;
  }
}

TEST_P(Exchanges, ThrowWhereverTheRequestIsCut) {
  Conversation whole(GetParam().protocol, GetParam().response);
  GetParam().call(whole);
  for (std::size_t room = 0; room < whole.m_socket->Sent().size(); ++room) {
    m_log->Clear();
    Conversation conversation(GetParam().protocol, GetParam().response);
    conversation.m_socket->SetRoom(room);
    EXPECT_THROW(GetParam().call(conversation), SocketException) << room;
    EXPECT_EQ(m_log->Lines("Code.SSLConfigServerAPIClient_v"), Strings{"Debug " + GetParam().sending}) << room;
    EXPECT_EQ(conversation.m_socket->Unread(), GetParam().response.size()) << room;
  }
}

TEST_P(Exchanges, AcceptAnyTypeExceptEstablishment) {
  for (const std::uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 99U, 0x01000000U, 0xFFFFFFFFU}) {
    std::string response = GetParam().response;
    for (int i = 0; i < 4; ++i) response[static_cast<std::size_t>(i)] = static_cast<char>(type >> (24 - 8 * i));
    Conversation conversation(GetParam().protocol, response);
    const std::uint32_t own = GetParam().protocol == WireProtocol::Version1 ? 1U : 6U;
    if (GetParam().IsEstablishment() && type != own) {
      EXPECT_THROW(GetParam().call(conversation), ProtocolException) << type;
    } else {
      EXPECT_EQ(GetParam().call(conversation), 7U) << type;
    }
  }
}

TEST_P(Exchanges, TakeARecordVersionAtItsClampAndNotAbove) {
  const std::string start = GetParam().response.substr(0, 8);
  const std::string rest = GetParam().response.substr(8 + 7);
  Conversation accepted(GetParam().protocol, start + HexBytes("00100000") + std::string(1048576, 'v') + rest);
  EXPECT_EQ(GetParam().call(accepted), 7U);
  m_log->Clear();
  Conversation refused(GetParam().protocol, start + HexBytes("00100001") + std::string(1048577, 'v') + rest);
  EXPECT_THROW(GetParam().call(refused), SocketException);
  EXPECT_EQ(m_log->Lines("Code.SSLConfigServerAPIClient.SerializeWireStringFromWire"),
            Strings{"Info Bad string read; given length exceeded maximum string clamp length of 1048576."});
}

TEST_P(Exchanges, IgnoreTheRecordSizeAndVersion) {
  const auto size = static_cast<std::uint32_t>(GetParam().response.size() - 8);
  for (const std::uint32_t recordSize : {0U, 1U, size - 1, size, size + 1, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    std::string response = GetParam().response;
    for (std::size_t i = 0; i < 4; ++i) response[4 + i] = static_cast<char>(recordSize >> (24 - 8 * i));
    response.replace(12, 3, "9.9");
    Conversation conversation(GetParam().protocol, response + "more");
    EXPECT_EQ(GetParam().call(conversation), 7U) << recordSize;
    EXPECT_EQ(conversation.m_socket->Unread(), 4U) << recordSize;
  }
}

INSTANTIATE_TEST_SUITE_P(Both, Exchanges, testing::ValuesIn(ExchangeCases()),
                         [](const testing::TestParamInfo<ExchangeCase>& test) {
                           return std::string(test.param.name) +
                                  (test.param.protocol == WireProtocol::Version1 ? "1" : "2");
                         });

class BothClients : public testing::TestWithParam<WireProtocol> {
 protected:
  bool IsVersion2() const { return GetParam() == WireProtocol::Version2; }

  /// A response with data: type, header, result code and what the version has around the data.
  std::string CodeResponse(const std::string& sizeDigestData1, const std::string& sizeDigestData2) const {
    return HexBytes("00000005 00000000 00000000 00000000") + HexBytes(IsVersion2() ? sizeDigestData2 : sizeDigestData1);
  }

  RecordingLogger m_log;
  Conversation m_conversation{GetParam()};
  std::shared_ptr<ACE_Message_Block> m_block = MakeBlock("old");
  std::string m_strMD5 = "old";
};

TEST_P(BothClients, AnswerTheReservedQueryWithZero) { EXPECT_EQ(m_conversation.m_client->GetReserved(), 0U); }

TEST_P(BothClients, HoldNothingAtFirst) {
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(m_block, nullptr);
  EXPECT_EQ(m_strMD5, "");
  m_block = MakeBlock("old");
  m_strMD5 = "old";
  EXPECT_FALSE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
  EXPECT_EQ(m_block, nullptr);
  EXPECT_EQ(m_strMD5, "");
  m_block = MakeBlock("old");
  EXPECT_FALSE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(m_block, nullptr);
}

TEST_P(BothClients, LogUnderTheirVersionAndIdentifier) {
  m_conversation.m_socket->Say(CodeResponse("00000000", "00000000 00000000"));
  UpdateCode(m_conversation);
  EXPECT_EQ(m_log->Records().front().logger,
            std::string("Code.SSLConfigServerAPIClient_v") + (IsVersion2() ? "2" : "1") + ".agent");
}

TEST_P(BothClients, HandOutCopiesOfTheCode) {
  m_conversation.m_socket->Say(
      CodeResponse("00000003 'abc'", "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'"));
  EXPECT_EQ(UpdateCode(m_conversation), 0U);
  ASSERT_TRUE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
  EXPECT_EQ(Content(m_block), "abc");
  EXPECT_EQ(m_block->size(), 3U);
  EXPECT_EQ(m_strMD5, md5OfAbc);
  *m_block->rd_ptr() = 'X';
  std::shared_ptr<ACE_Message_Block> again;
  ASSERT_TRUE(m_conversation.m_client->GetCodeData(again, m_strMD5));
  EXPECT_EQ(Content(again), "abc");
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(again, m_strMD5));
}

/// Counts the large blocks made during its lifetime. They must not outlive it.
class LargeBlocks : public ACE_New_Allocator {
 public:
  LargeBlocks() : m_pPrevious(ACE_Allocator::instance(this)) {}
  ~LargeBlocks() override { ACE_Allocator::instance(m_pPrevious); }
  LargeBlocks(const LargeBlocks&) = delete;
  LargeBlocks& operator=(const LargeBlocks&) = delete;

  void* malloc(std::size_t size) override {
    if (size >= largeBytes) ++m_count;
    return ACE_New_Allocator::malloc(size);
  }

  static constexpr std::size_t largeBytes = 1048576;
  int m_count = 0;

 private:
  ACE_Allocator* m_pPrevious;
};

TEST_P(BothClients, ReadDataIntoOneBlockAndCopyOnlyWhatTheyHandOut) {
  const std::string data =
      HexBytes("00100000") + (IsVersion2() ? HexBytes("00000000") : "") + std::string(LargeBlocks::largeBytes, 'd');
  const std::string header = HexBytes("00000004 00000000 00000000 00000000");
  LargeBlocks blocks;
  Conversation conversation(GetParam(), header + data + header + (IsVersion2() ? data : "") + data);
  UpdateCode(conversation);
  EXPECT_EQ(blocks.m_count, 1);
  UpdateConfiguration(conversation);
  EXPECT_EQ(blocks.m_count, IsVersion2() ? 3 : 2);
  EXPECT_EQ(conversation.m_socket->Unread(), 0U);
  std::shared_ptr<ACE_Message_Block> code;
  ASSERT_TRUE(conversation.m_client->GetCodeData(code, m_strMD5));
  EXPECT_EQ(blocks.m_count, IsVersion2() ? 4 : 3);
}

TEST_P(BothClients, ReplaceTheCodeAndLeaveWhatWasHandedOut) {
  m_conversation.m_socket->Say(CodeResponse("00000003 'abc'", "00000003 00000000 'abc'"));
  UpdateCode(m_conversation);
  m_conversation.m_client->GetCodeData(m_block, m_strMD5);
  m_conversation.m_socket->Say(CodeResponse("00000002 'xy'", "00000002 00000000 'xy'"));
  UpdateCode(m_conversation);
  std::shared_ptr<ACE_Message_Block> second;
  ASSERT_TRUE(m_conversation.m_client->GetCodeData(second, m_strMD5));
  EXPECT_EQ(Content(second), "xy");
  EXPECT_EQ(Content(m_block), "abc");
  m_conversation.m_client.reset();
  EXPECT_EQ(Content(second), "xy");
}

TEST_P(BothClients, HoldNoCodeAfterAnEmptyResponse) {
  m_conversation.m_socket->Say(CodeResponse("00000003 'abc'", "00000003 00000000 'abc'"));
  UpdateCode(m_conversation);
  m_log->Clear();
  m_conversation.m_socket->Say(HexBytes("00000005 00000000 00000000 00000005") +
                               HexBytes(IsVersion2() ? "00000000 00000000" : "00000000"));
  EXPECT_EQ(UpdateCode(m_conversation), 5U);
  EXPECT_FALSE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
  EXPECT_EQ(m_strMD5, "");
  EXPECT_EQ(m_log->Lines().back(), "Debug Received empty code update response (result code 5)");
}

TEST_P(BothClients, KeepTheCodeUntilTheResultCodeHasCome) {
  m_conversation.m_socket->Say(CodeResponse("00000003 'abc'", "00000003 00000000 'abc'"));
  UpdateCode(m_conversation);
  m_conversation.m_socket->Say(HexBytes("00000005 00000000 00000000 000000"));
  EXPECT_THROW(UpdateCode(m_conversation), SocketException);
  EXPECT_TRUE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
  m_conversation.m_socket->Say(HexBytes("00000005 00000000 00000000 00000000"));
  EXPECT_THROW(UpdateCode(m_conversation), SocketException);
  EXPECT_FALSE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
}

TEST_P(BothClients, RefuseCodeAboveItsClamp) {
  m_conversation.m_socket->Say(CodeResponse("06400001 'abc'", "06400001 00000000 'abc'"));
  EXPECT_THROW(UpdateCode(m_conversation), SocketException);
  EXPECT_EQ(m_conversation.m_socket->Unread(), 3U);
  EXPECT_EQ(m_log->Lines("Code.SSLConfigServerAPIClient.SerializeWireBinaryFromWire"),
            Strings{"Info Bad data read; given length exceeded maximum binary clamp length of 104857600."});
}

TEST_P(BothClients, TakeCodeAtItsClamp) {
  m_conversation.m_socket->Say(CodeResponse("06400000", "06400000 00000000") + DataAtTheClamp());
  EXPECT_EQ(UpdateCode(m_conversation), 0U);
  ASSERT_TRUE(m_conversation.m_client->GetCodeData(m_block, m_strMD5));
  EXPECT_EQ(m_block->length(), 104857600U);
}

TEST_P(BothClients, TakeAConfigurationAtItsClampAndNotAbove) {
  const std::string start =
      HexBytes("00000004 00000000 00000000 00000000") + (IsVersion2() ? HexBytes("00000000 00000000") : std::string());
  const std::string digest = IsVersion2() ? HexBytes("00000000") : std::string();
  m_conversation.m_socket->Say(start + HexBytes("06400000") + digest + DataAtTheClamp());
  EXPECT_EQ(UpdateConfiguration(m_conversation), 0U);
  ASSERT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(m_block->length(), 104857600U);
  m_log->Clear();
  m_conversation.m_socket->Say(start + HexBytes("06400001") + digest + "abc");
  EXPECT_THROW(UpdateConfiguration(m_conversation), SocketException);
  EXPECT_EQ(m_conversation.m_socket->Unread(), 3U);
  EXPECT_EQ(m_log->Count("Info Bad data read; given length exceeded maximum binary clamp length of 104857600."), 1U);
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
}

TEST_P(BothClients, NeverAskForMoreThanAClamp) {
  std::vector<const char*> streams{"00000000 00000000 FFFFFFFF",
                                   "00000000 00000000 00000000 00000000 FFFFFFFF 00000000"};
  if (IsVersion2()) {
    streams.push_back("00000000 00000000 00000000 00000000 00000001 FFFFFFFF");
    streams.push_back("00000000 00000000 00000000 00000000 00000000 00000000 FFFFFFFF 00000000");
  }
  for (const char* hostile : streams) {
    Conversation conversation(GetParam(), HexBytes(hostile));
    EXPECT_THROW(UpdateConfiguration(conversation), SocketException) << hostile;
    EXPECT_FALSE(conversation.m_socket->Calls().empty()) << hostile;
    for (const FakeRawSocket::Call& call : conversation.m_socket->Calls()) {
      EXPECT_LE(call.length, 32U) << hostile;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Clients, BothClients, testing::Values(WireProtocol::Version1, WireProtocol::Version2),
                         [](const testing::TestParamInfo<WireProtocol>& test) {
                           return std::string("Version") + (test.param == WireProtocol::Version1 ? "1" : "2");
                         });

class ClientOfVersion1 : public testing::Test {
 protected:
  RecordingLogger m_log;
  Conversation m_conversation{WireProtocol::Version1};
  std::shared_ptr<ACE_Message_Block> m_block;
  std::string m_strMD5;
};

TEST_F(ClientOfVersion1, IgnoresTheConnectionFlags) {
  m_conversation.m_socket->Say(HexBytes("00000001 0000000B 00000003 '1.0' 00000000"));
  EXPECT_EQ(m_conversation.m_client->ConnectionEstablishment(m_conversation.m_serializer, CONNECTION_FLAG_DIAGNOSTIC),
            0U);
  EXPECT_EQ(m_conversation.m_socket->Sent(),
            HexBytes("00000001 00000020 00000003 '1.0' 00000003 '1.0' 00000005 'agent' 00000005 'token'"));
}

TEST_F(ClientOfVersion1, RefusesAnotherTypeAfterTheWholeResponse) {
  for (const char* type : {"00000006", "00000002", "00000000"}) {
    m_log->Clear();
    m_conversation.m_socket->Say(HexBytes(type) + HexBytes("0000000B 00000003 '1.0' 00000000"));
    try {
      Establish(m_conversation);
      ADD_FAILURE() << type;
    } catch (const ProtocolMismatchException&) {
      ADD_FAILURE() << type;
    } catch (const ProtocolException& exception) {
      EXPECT_EQ(exception.GetFunction(), "SSLConfigServerProto::SSLConfigServerAPIClient_v1::ConnectionEstablishment");
      EXPECT_EQ(exception.GetSourceFile(), "SSLConfigServerAPIClient_v1");
    }
    EXPECT_EQ(m_conversation.m_socket->Unread(), 0U);
    EXPECT_EQ(m_log->Lines(), (Strings{"Debug Sending connection establishment request...",
                                       "Debug Sent connection establishment request.",
                                       "Debug Receiving connection establishment response...",
                                       "Debug Received bad/junk response from configuration server"}));
  }
}

TEST_F(ClientOfVersion1, ComputesTheMd5OfAConfiguration) {
  m_conversation.m_socket->Say(HexBytes("00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'"));
  EXPECT_EQ(UpdateConfiguration(m_conversation), 0U);
  ASSERT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(Content(m_block), "abc");
  EXPECT_EQ(m_strMD5, md5OfAbc);
  EXPECT_FALSE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(m_block, nullptr);
}

TEST_F(ClientOfVersion1, SecondConfigurationReplacesTheFirst) {
  m_conversation.m_socket->Say(HexBytes("00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'"));
  UpdateConfiguration(m_conversation);
  m_conversation.m_client->GetConfigurationData(m_block, m_strMD5);
  m_conversation.m_socket->Say(HexBytes("00000004 00000011 00000003 '1.0' 00000000 00000003 'key'"));
  UpdateConfiguration(m_conversation);
  std::shared_ptr<ACE_Message_Block> second;
  ASSERT_TRUE(m_conversation.m_client->GetConfigurationData(second, m_strMD5));
  EXPECT_EQ(Content(second), "key");
  EXPECT_EQ(m_strMD5, "3c6e0b8a9c15224a8228b9a98ca1531d");
  EXPECT_EQ(Content(m_block), "abc");
}

TEST_F(ClientOfVersion1, EmptyConfigurationLeavesNone) {
  m_conversation.m_socket->Say(HexBytes("00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'"));
  UpdateConfiguration(m_conversation);
  m_log->Clear();
  m_conversation.m_socket->Say(HexBytes("00000004 0000000F 00000003 '1.0' 00000005 00000000"));
  EXPECT_EQ(UpdateConfiguration(m_conversation), 5U);
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(m_block, nullptr);
  EXPECT_EQ(m_strMD5, "");
  EXPECT_EQ(m_log->Lines(),
            (Strings{"Debug Sending configuration update request...", "Debug Sent configuration update request.",
                     "Debug Receiving configuration update response...",
                     "Debug Received empty configuration update response (result code 5)"}));
}

TEST_F(ClientOfVersion1, ConfigurationIsHeldUntilTheResultCodeHasCome) {
  const std::string good = HexBytes("00000004 00000012 00000003 '1.0' 00000000 00000003 'abc'");
  m_conversation.m_socket->Say(good);
  UpdateConfiguration(m_conversation);
  m_conversation.m_socket->Say(good.substr(0, 18));
  EXPECT_THROW(UpdateConfiguration(m_conversation), SocketException);
  EXPECT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  m_conversation.m_socket->Say(good.substr(0, 19));
  EXPECT_THROW(UpdateConfiguration(m_conversation), SocketException);
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
}

class ClientOfVersion2 : public testing::Test {
 protected:
  /// A configuration response with these two binaries.
  static std::string Configuration(const std::string& key, const std::string& data) {
    return HexBytes("00000004 00000061 00000003 '2.0' 00000000" + key + data);
  }

  RecordingLogger m_log;
  Conversation m_conversation{WireProtocol::Version2};
  std::shared_ptr<ACE_Message_Block> m_block;
  std::string m_strMD5;
};

std::int64_t SecondsSinceEpoch() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// The eight bytes at `offset`.
std::int64_t Number64(const std::string& bytes, std::size_t offset) {
  std::int64_t number = 0;
  for (std::size_t i = 0; i < 8; ++i) number = number * 256 + static_cast<unsigned char>(bytes.at(offset + i));
  return number;
}

TEST_F(ClientOfVersion2, EstablishesWithFlagsTimeZoneAndKey) {
  const std::string zone = TimeZoneText(VaroCommunicationAPI::Platform::CurrentTimeZone());
  for (const std::uint32_t flags : {CONNECTION_FLAG_DIAGNOSTIC, CONNECTION_FLAG_NONE}) {
    m_conversation.m_socket->Clear();
    m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
    const std::int64_t before = SecondsSinceEpoch();
    m_conversation.m_client->ConnectionEstablishment(m_conversation.m_serializer, flags);
    const std::string& sent = m_conversation.m_socket->Sent();

    // 7 + 7 + 9 + 9 + 4 + 8 + (4 + T) + (8 + 32 + 3)
    ASSERT_LE(91 + zone.size(), 255U);
    const auto recordSize = static_cast<char>(91 + zone.size());
    const std::string start = HexBytes("00000006 000000") + recordSize +
                              HexBytes("00000003 '2.0' 00000003 '2.0' 00000005 'agent' 00000005 'token' 000000") +
                              static_cast<char>(flags);
    EXPECT_EQ(sent.substr(0, start.size()), start);
    const std::int64_t timestamp = Number64(sent, start.size());
    EXPECT_GE(timestamp, before);
    EXPECT_LE(timestamp, SecondsSinceEpoch());
    EXPECT_EQ(sent.substr(start.size() + 8),
              HexBytes("000000") + static_cast<char>(zone.size()) + zone +
                  HexBytes("00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"));
  }
}

TEST_F(ClientOfVersion2, SendsTheTimeOfTheCall) {
  // The client was made in an earlier second.
  const std::int64_t before = SecondsSinceEpoch();
  ASSERT_TRUE(sorvex::test::WaitUntil([&] { return SecondsSinceEpoch() > before; }));
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
  Establish(m_conversation);
  // 8 + 7 + 7 + 9 + 9 + 4
  EXPECT_GT(Number64(m_conversation.m_socket->Sent(), 44), before);
}

TEST_F(ClientOfVersion2, TimeZoneTellsWhetherDaylightTimeIsInEffect) {
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
  Establish(m_conversation);
  const bool bDaylight = VaroCommunicationAPI::Platform::CurrentTimeZone().m_bDaylight;
  const auto contains = [&](const char* text) {
    return m_conversation.m_socket->Sent().find(text) != std::string::npos;
  };
  EXPECT_EQ(contains("Daylight Savings is in effect"), bDaylight);
  EXPECT_EQ(contains("Daylight Savings is not in effect"), !bDaylight);
}

TEST_F(ClientOfVersion2, ReadsTheUnreadBytesOfTheCallersKey) {
  const auto key = MakeBlock("--key");
  key->rd_ptr(2);
  const SSLConfigServerAPIClient_v2 client("agent", "token", *key);
  EXPECT_EQ(key->length(), 0U);
}

TEST_F(ClientOfVersion2, KeepsItsOwnCopyOfTheKey) {
  const auto key = MakeBlock("key");
  SSLConfigServerAPIClient_v2 client("agent", "token", *key);
  *key->base() = 'X';
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
  client.ConnectionEstablishment(m_conversation.m_serializer, CONNECTION_FLAG_NONE);
  EXPECT_TRUE(m_conversation.m_socket->Sent().ends_with("3c6e0b8a9c15224a8228b9a98ca1531dkey"));
}

TEST_F(ClientOfVersion2, WithAnEmptyKeyWritesItsLengthAlone) {
  const auto key = MakeBlock("");
  SSLConfigServerAPIClient_v2 client("agent", "token", *key);
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
  client.ConnectionEstablishment(m_conversation.m_serializer, CONNECTION_FLAG_NONE);
  EXPECT_TRUE(m_conversation.m_socket->Sent().ends_with(HexBytes("' in effect' 00000000")));
}

TEST_F(ClientOfVersion2, ShowsBothVersionsOfTheEstablishment) {
  m_conversation.m_socket->Say(HexBytes("00000006 00000014 00000003 '2.0' 80000005 00000005 '2.1' 0A 'x'"));
  EXPECT_EQ(Establish(m_conversation), 0x80000005U);
  EXPECT_EQ(
      m_log->Lines().back(),
      R"(Debug Received connection establishment response (result code 2147483653, wire versions cli:2.0 --> svr:2.1\nx))");
}

TEST_F(ClientOfVersion2, TakesAServersVersionAtItsClamp) {
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00100000") +
                               std::string(1048576, '2'));
  EXPECT_EQ(Establish(m_conversation), 0U);
  EXPECT_EQ(m_conversation.m_socket->Unread(), 0U);
}

TEST_F(ClientOfVersion2, RefusesAServersVersionAboveItsClamp) {
  m_conversation.m_socket->Say(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00100001"));
  EXPECT_THROW(Establish(m_conversation), SocketException);
  EXPECT_EQ(m_log->Count("Info Bad string read; given length exceeded maximum string clamp length of 1048576."), 1U);
}

TEST_F(ClientOfVersion2, ReportsAServerOfVersion1AndLeavesTheRest) {
  m_conversation.m_socket->Say(HexBytes("00000001 0000000B 00000003 '1.0' 00000000"));
  try {
    Establish(m_conversation);
    FAIL();
  } catch (const ProtocolMismatchException& exception) {
    EXPECT_EQ(exception.GetClientVersion(), "2.0");
    EXPECT_EQ(exception.GetServerVersion(), "1.0");
    EXPECT_EQ(exception.GetMessageText(), "cli:2.0 --> svr:1.0");
    EXPECT_EQ(exception.GetFunction(), "SSLConfigServerProto::SSLConfigServerAPIClient_v2::ConnectionEstablishment");
    EXPECT_EQ(exception.GetSourceFile(), "SSLConfigServerAPIClient_v2");
  }
  EXPECT_EQ(m_conversation.m_socket->Unread(), 15U);
  EXPECT_EQ(m_log->Lines(), (Strings{"Debug Sending connection establishment request...",
                                     "Debug Sent connection establishment request.",
                                     "Debug Receiving connection establishment response..."}));
}

TEST_F(ClientOfVersion2, RefusesAnyOtherTypeAtOnce) {
  for (const char* type : {"00000003", "00000000", "FFFFFFFF"}) {
    m_log->Clear();
    Conversation conversation(WireProtocol::Version2, HexBytes(type) + "rest");
    try {
      Establish(conversation);
      ADD_FAILURE() << type;
    } catch (const ProtocolMismatchException&) {
      ADD_FAILURE() << type;
    } catch (const ProtocolException& exception) {
      EXPECT_EQ(exception.GetFunction(), "SSLConfigServerProto::SSLConfigServerAPIClient_v2::ConnectionEstablishment");
    }
    EXPECT_EQ(conversation.m_socket->Unread(), 4U);
    EXPECT_EQ(m_log->Lines().size(), 4U);
    EXPECT_EQ(m_log->Lines().back(), "Debug Received bad/junk response from configuration server");
  }
}

TEST_F(ClientOfVersion2, HoldsTheServersKeyAndTheDigestsAsReceived) {
  m_conversation.m_socket->Say(Configuration("00000003 00000003 'one' 'key'", "00000003 00000003 'two' 'abc'"));
  UpdateConfiguration(m_conversation);
  ASSERT_TRUE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(Content(m_block), "key");
  *m_block->rd_ptr() = 'X';
  m_conversation.m_client->GetServerPublicKey(m_block);
  EXPECT_EQ(Content(m_block), "key");
  ASSERT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(Content(m_block), "abc");
  EXPECT_EQ(m_strMD5, "two");
}

TEST_F(ClientOfVersion2, AnEmptyDigestIsKeptAsItIs) {
  m_conversation.m_socket->Say(Configuration("00000000 00000000", "00000003 00000000 'abc'"));
  UpdateConfiguration(m_conversation);
  m_strMD5 = "old";
  EXPECT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(m_strMD5, "");
}

TEST_F(ClientOfVersion2, EmptyKeyWithAConfigurationLeavesNoKey) {
  m_conversation.m_socket->Say(Configuration("00000003 00000000 'key'", "00000003 00000000 'abc'"));
  UpdateConfiguration(m_conversation);
  m_conversation.m_socket->Say(
      Configuration("00000000 00000020 'd41d8cd98f00b204e9800998ecf8427e'", "00000003 00000000 'xyz'"));
  UpdateConfiguration(m_conversation);
  EXPECT_FALSE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(m_block, nullptr);
  EXPECT_TRUE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(Content(m_block), "xyz");
}

TEST_F(ClientOfVersion2, EmptyConfigurationWithAKeyLeavesNoConfiguration) {
  m_conversation.m_socket->Say(Configuration("00000000 00000000", "00000003 00000000 'abc'"));
  UpdateConfiguration(m_conversation);
  m_conversation.m_socket->Say(
      Configuration("00000003 00000000 'key'", "00000000 00000020 'd41d8cd98f00b204e9800998ecf8427e'"));
  UpdateConfiguration(m_conversation);
  EXPECT_EQ(m_conversation.m_socket->Unread(), 0U);
  EXPECT_FALSE(m_conversation.m_client->GetConfigurationData(m_block, m_strMD5));
  EXPECT_EQ(m_strMD5, "");
  EXPECT_TRUE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(m_log->Lines().back(), "Debug Received empty configuration update response (result code 0)");
}

TEST_F(ClientOfVersion2, HoldsWhatAFailedUpdateHasNotReached) {
  const std::string good = Configuration("00000003 00000000 'key'", "00000003 00000000 'abc'");
  struct {
    std::size_t cut;
    bool bOldKey, bNewKey, bConfiguration;
  } const rows[] = {
      {18, true, false, true},   // inside the result code
      {19, false, false, true},  // before the key
      {29, false, false, true},  // inside the key
      {30, false, true, false},  // before the configuration
      {40, false, true, false},  // inside the configuration
  };
  for (const auto& row : rows) {
    Conversation conversation(WireProtocol::Version2,
                              Configuration("00000003 00000000 'old'", "00000003 00000000 'old'"));
    UpdateConfiguration(conversation);
    conversation.m_socket->Say(good.substr(0, row.cut));
    EXPECT_THROW(UpdateConfiguration(conversation), SocketException) << row.cut;
    const bool bKey = conversation.m_client->GetServerPublicKey(m_block);
    EXPECT_EQ(bKey, row.bOldKey || row.bNewKey) << row.cut;
    if (bKey) {
      EXPECT_EQ(Content(m_block), row.bNewKey ? "key" : "old") << row.cut;
    }
    EXPECT_EQ(conversation.m_client->GetConfigurationData(m_block, m_strMD5), row.bConfiguration) << row.cut;
  }
}

TEST_F(ClientOfVersion2, RefusesADigestOf33Bytes) {
  for (const bool bKey : {true, false}) {
    const std::string refused = "00000003 00000021 '900150983cd24fb0d6963f7d28e17f72-' 'abc'";
    Conversation conversation(WireProtocol::Version2,
                              bKey ? Configuration(refused, "") : Configuration("00000000 00000000", refused));
    m_log->Clear();
    EXPECT_THROW(UpdateConfiguration(conversation), SocketException);
    EXPECT_EQ(m_log->Count("Info Bad string read; given length exceeded maximum string clamp length of 32."), 1U);
    EXPECT_EQ(conversation.m_socket->Unread(), 36U);
  }
}

TEST_F(ClientOfVersion2, TakesAKeyAtItsClamp) {
  m_conversation.m_socket->Say(HexBytes("00000004 00000000 00000003 '2.0' 00000000 06400000 00000000") +
                               DataAtTheClamp() + HexBytes("00000000 00000000"));
  EXPECT_EQ(UpdateConfiguration(m_conversation), 0U);
  ASSERT_TRUE(m_conversation.m_client->GetServerPublicKey(m_block));
  EXPECT_EQ(m_block->length(), 104857600U);
}

TEST_F(ClientOfVersion2, RefusesAKeyAboveItsClamp) {
  m_conversation.m_socket->Say(Configuration("06400001 00000000", ""));
  EXPECT_THROW(UpdateConfiguration(m_conversation), SocketException);
  EXPECT_EQ(m_log->Count("Info Bad data read; given length exceeded maximum binary clamp length of 104857600."), 1U);
}

}  // namespace
}  // namespace SSLConfigServerProto
