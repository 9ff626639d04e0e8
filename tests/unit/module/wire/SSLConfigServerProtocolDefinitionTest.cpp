#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include "TestBlock.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "support/RecordingLogger.h"
#include "wire/SocketSerializer.h"

#include <host/Exceptions.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace SSLConfigServerProto {
namespace {

using sorvex::test::FakeRawSocket;
using sorvex::test::HexBytes;
using sorvex::test::RecordingLogger;
using WindowsAgentCommon::SocketException;

const std::string md5OfAbc = "900150983cd24fb0d6963f7d28e17f72";
const std::string md5OfNothing = "d41d8cd98f00b204e9800998ecf8427e";

/// A length and as many bytes.
std::string Sized(std::uint32_t size) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift);
  return bytes + std::string(size, 'x');
}

class WireFields : public testing::Test {
 protected:
  RecordingLogger m_log;
  std::shared_ptr<FakeRawSocket> m_socket = std::make_shared<FakeRawSocket>();
  VaroCommunicationAPI::SocketSerializer m_serializer{m_socket};
};

using WireStringFromWire = WireFields;
using WireBinaryFromWire = WireFields;
using WireFieldsToWire = WireFields;

void ExpectException(const std::function<void()>& call, const char* function) {
  try {
    call();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const SocketException& exception) {
    EXPECT_EQ(exception.GetFunction(), function);
    EXPECT_EQ(exception.GetSourceFile(), "SSLConfigServerProtocolDefinition");
    EXPECT_GT(exception.GetLine(), 0);
  }
}

TEST_F(WireStringFromWire, IsALengthAndItsBytes) {
  m_socket->Say(HexBytes("00000003 'abc' 'more'"));
  WireString string;
  EXPECT_EQ(SerializeWireStringFromWire(m_serializer, string, 100), 7U);
  EXPECT_EQ(string.size_in_bytes, 3U);
  EXPECT_EQ(string.View(), "abc");
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireStringFromWire, OfLengthZeroReadsNothingMore) {
  m_socket->Say(HexBytes("00000000 'more'"));
  WireString string;
  SetWireString(string, "old");
  EXPECT_EQ(SerializeWireStringFromWire(m_serializer, string, 100), 4U);
  EXPECT_EQ(string.size_in_bytes, 0U);
  EXPECT_EQ(string.data, nullptr);
  EXPECT_EQ(m_socket->Calls().size(), 1U);
}

TEST_F(WireStringFromWire, KeepsBytesThatAreNoText) {
  m_socket->Say(HexBytes("00000004 00 FF 80 0A"));
  WireString string;
  SerializeWireStringFromWire(m_serializer, string, 100);
  EXPECT_EQ(GetText(string), HexBytes("00 FF 80 0A"));
}

TEST_F(WireStringFromWire, AtItsClampIsAccepted) {
  m_socket->Say(Sized(maxWireStringBytes));
  WireString string;
  EXPECT_EQ(SerializeWireStringFromWire(m_serializer, string, maxWireStringBytes), 1048580U);
  EXPECT_EQ(string.size_in_bytes, 1048576U);
  EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(WireStringFromWire, AboveItsClampIsLoggedAndThrown) {
  m_socket->Say(Sized(maxWireStringBytes + 1));
  WireString string;
  SetWireString(string, "old");
  ExpectException([&] { SerializeWireStringFromWire(m_serializer, string, maxWireStringBytes); },
                  "SSLConfigServerProto::SerializeWireStringFromWire");
  EXPECT_EQ(string.size_in_bytes, 0U);
  EXPECT_EQ(m_socket->Unread(), 1048577U);
  EXPECT_EQ(m_log->Records(),
            (std::vector<sorvex::test::LogRecord>{
                {WindowsAgentCommon::LogLevel::Info, "Code.SSLConfigServerAPIClient.SerializeWireStringFromWire",
                 "Bad string read; given length exceeded maximum string clamp length of 1048576."}}));
}

TEST_F(WireStringFromWire, TheGreatestLengthIsRefusedBeforeAnythingIsAskedFor) {
  m_socket->Say(HexBytes("FFFFFFFF 'more'"));
  WireString string;
  EXPECT_THROW(SerializeWireStringFromWire(m_serializer, string, maxWireStringBytes), SocketException);
  EXPECT_EQ(m_socket->Calls().size(), 1U);
}

TEST_F(WireStringFromWire, CutAnywhereThrows) {
  const std::string whole = HexBytes("00000003 'abc'");
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    auto socket = std::make_shared<FakeRawSocket>(whole.substr(0, cut));
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    WireString string;
    EXPECT_THROW(SerializeWireStringFromWire(serializer, string, 100), SocketException) << cut;
    EXPECT_EQ(string.size_in_bytes, 0U) << cut;
  }
}

TEST_F(WireBinaryFromWire, WithoutDigestIsALengthAndItsBytes) {
  m_socket->Say(HexBytes("00000003 'abc' 'more'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, false, 100), 7U);
  EXPECT_EQ(binary.size_in_bytes, 3U);
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireBinaryFromWire, WithDigestHasItInTheMiddle) {
  m_socket->Say(HexBytes("00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc' 'more'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, true, 100), 43U);
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(binary.digest.View(), md5OfAbc);
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireBinaryFromWire, DoesNotCompareTheDigest) {
  m_socket->Say(HexBytes("00000003 00000002 'no' 'abc'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, true, 100), 13U);
  EXPECT_EQ(binary.digest.View(), "no");
}

TEST_F(WireBinaryFromWire, AcceptsAnEmptyDigest) {
  m_socket->Say(HexBytes("00000003 00000000 'abc'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, true, 100), 11U);
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
}

TEST_F(WireBinaryFromWire, OfSizeZeroWithoutDigestIsFourBytes) {
  m_socket->Say(HexBytes("00000000 'more'"));
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("old"));
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, false, 100), 4U);
  EXPECT_EQ(binary.size_in_bytes, 0U);
  EXPECT_EQ(binary.data, nullptr);
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireBinaryFromWire, OfSizeZeroStillReadsItsDigest) {
  m_socket->Say(HexBytes("00000000 00000000 'more'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, true, 100), 8U);
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireBinaryFromWire, OfSizeZeroReadsADigestThatIsNotEmpty) {
  m_socket->Say(HexBytes("00000000 00000020 'd41d8cd98f00b204e9800998ecf8427e' 'more'"));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, true, 100), 40U);
  EXPECT_EQ(binary.data, nullptr);
  EXPECT_EQ(binary.digest.View(), md5OfNothing);
  EXPECT_EQ(m_socket->Unread(), 4U);
}

TEST_F(WireBinaryFromWire, RefusesADigestOf33Bytes) {
  m_socket->Say(HexBytes("00000003 00000021 '900150983cd24fb0d6963f7d28e17f721' 'abc'"));
  WireBinary binary;
  ExpectException([&] { SerializeWireBinaryFromWire(m_serializer, binary, true, 100); },
                  "SSLConfigServerProto::SerializeWireStringFromWire");
  EXPECT_EQ(m_log->Records(),
            (std::vector<sorvex::test::LogRecord>{
                {WindowsAgentCommon::LogLevel::Info, "Code.SSLConfigServerAPIClient.SerializeWireStringFromWire",
                 "Bad string read; given length exceeded maximum string clamp length of 32."}}));
  EXPECT_EQ(m_socket->Unread(), 36U);
}

TEST_F(WireBinaryFromWire, AtItsClampIsAccepted) {
  m_socket->Say(Sized(maxWireDataBytes));
  WireBinary binary;
  EXPECT_EQ(SerializeWireBinaryFromWire(m_serializer, binary, false, maxWireDataBytes), 104857604U);
  EXPECT_EQ(binary.size_in_bytes, 104857600U);
  EXPECT_EQ(binary.data->length(), 104857600U);
  EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(WireBinaryFromWire, AboveItsClampIsLoggedAndThrown) {
  for (const bool bWithDigest : {false, true}) {
    // The digest comes first, whatever the size is.
    m_socket->Clear();
    m_socket->Say(HexBytes(bWithDigest ? "06400001 00000002 'no'" : "06400001"));
    m_log->Clear();
    WireBinary binary;
    ExpectException([&] { SerializeWireBinaryFromWire(m_serializer, binary, bWithDigest, maxWireDataBytes); },
                    "SSLConfigServerProto::SerializeWireBinaryFromWire");
    EXPECT_EQ(m_socket->Unread(), 0U);
    EXPECT_EQ(m_socket->Calls().size(), bWithDigest ? 3U : 1U);
    EXPECT_EQ(m_log->Records(),
              (std::vector<sorvex::test::LogRecord>{
                  {WindowsAgentCommon::LogLevel::Info, "Code.SSLConfigServerAPIClient.SerializeWireBinaryFromWire",
                   "Bad data read; given length exceeded maximum binary clamp length of 104857600."}}));
  }
}

TEST_F(WireBinaryFromWire, CutAnywhereThrows) {
  const std::string whole = HexBytes("00000003 00000002 'no' 'abc'");
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    auto socket = std::make_shared<FakeRawSocket>(whole.substr(0, cut));
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    WireBinary binary;
    EXPECT_THROW(SerializeWireBinaryFromWire(serializer, binary, true, 100), SocketException) << cut;
    EXPECT_EQ(binary.size_in_bytes, 0U) << cut;
    EXPECT_EQ(binary.data, nullptr) << cut;
  }
}

TEST_F(WireFieldsToWire, StringIsALengthAndItsBytesInTwoWrites) {
  WireString string;
  SetWireString(string, "abc");
  EXPECT_EQ(SerializeWireStringToWire(m_serializer, string), 7U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000003 'abc'"));
  EXPECT_EQ(m_socket->Calls().size(), 2U);
}

TEST_F(WireFieldsToWire, EmptyStringIsFourZeroBytes) {
  EXPECT_EQ(SerializeWireStringToWire(m_serializer, {}), 4U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000000"));
}

TEST_F(WireFieldsToWire, BinaryWithoutDigest) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("abc"));
  EXPECT_EQ(SerializeWireBinaryToWire(m_serializer, binary, false), 7U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000003 'abc'"));
}

TEST_F(WireFieldsToWire, BinaryWithItsStoredDigest) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("abc"));
  SetWireString(binary.digest, "stored");
  EXPECT_EQ(SerializeWireBinaryToWire(m_serializer, binary, true), 17U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000003 00000006 'stored' 'abc'"));
}

TEST_F(WireFieldsToWire, BinaryWithoutStoredDigestComputesIt) {
  WireBinary binary;
  binary.data = MakeBlock("abc");
  binary.size_in_bytes = 3;
  EXPECT_EQ(SerializeWireBinaryToWire(m_serializer, binary, true), 43U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'"));
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
}

TEST_F(WireFieldsToWire, EmptyBinaryIsFourZeroBytesAlsoWithDigest) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock(""));
  EXPECT_EQ(binary.digest.View(), md5OfNothing);
  EXPECT_EQ(SerializeWireBinaryToWire(m_serializer, binary, true), 4U);
  EXPECT_EQ(m_socket->Sent(), HexBytes("00000000"));
}

TEST_F(WireFieldsToWire, BinaryOfTwoLengthsIsRefusedAndNothingWritten) {
  for (const std::uint32_t size : {0U, 2U, 4U, 0xFFFFFFFFU}) {
    WireBinary binary;
    SetWireBinary(binary, *MakeBlock("abc"));
    binary.size_in_bytes = size;
    for (const bool bWithDigest : {false, true}) {
      ExpectException([&] { SerializeWireBinaryToWire(m_serializer, binary, bWithDigest); },
                      "SSLConfigServerProto::SerializeWireBinaryToWire");
    }
  }
  WireBinary binary;
  binary.size_in_bytes = 1;
  EXPECT_THROW(SerializeWireBinaryToWire(m_serializer, binary, false), SocketException);
  EXPECT_EQ(m_socket->Calls().size(), 0U);
}

TEST_F(WireFieldsToWire, ShortWritesThrow) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("abc"));
  for (std::size_t room = 0; room < 43; ++room) {
    auto socket = std::make_shared<FakeRawSocket>();
    socket->SetRoom(room);
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    EXPECT_THROW(SerializeWireBinaryToWire(serializer, binary, true), SocketException) << room;
  }
}

TEST(WireStringFilling, CopiesTheBytesOfTheText) {
  WireString string;
  std::string text("a\0b\xC3\xBC", 5);
  SetWireString(string, text);
  text.assign(5, '-');
  EXPECT_EQ(string.size_in_bytes, 5U);
  EXPECT_EQ(GetText(string), std::string("a\0b\xC3\xBC", 5));
  SetWireString(string, "");
  EXPECT_EQ(string.size_in_bytes, 0U);
  EXPECT_EQ(string.data, nullptr);
  EXPECT_EQ(GetText(string), "");
}

TEST(WireStringFilling, TakesItsOwnText) {
  WireString string;
  SetWireString(string, "abc");
  SetWireString(string, string.View().substr(1));
  EXPECT_EQ(string.View(), "bc");
}

TEST(WireBinaryFilling, CopiesTheUnreadBytesWithTheirDigest) {
  const auto block = MakeBlock("--abc");
  block->rd_ptr(2);
  WireBinary binary;
  SetWireBinary(binary, *block);
  EXPECT_EQ(block->length(), 3U);
  *block->rd_ptr() = 'X';
  EXPECT_EQ(binary.size_in_bytes, 3U);
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(binary.digest.View(), md5OfAbc);
}

TEST(WireBinaryFilling, TakesItsOwnBlock) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("--abc"));
  binary.data->rd_ptr(2);
  SetWireBinary(binary, *binary.data);
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(binary.size_in_bytes, 3U);
  EXPECT_EQ(binary.digest.View(), md5OfAbc);
}

TEST(WireBinaryFilling, GivesACopyAndKeepsItsOwn) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("abc"));
  const auto block = GetMessageBlock(binary, false);
  *block->rd_ptr() = 'X';
  EXPECT_EQ(Content(binary.data), "abc");
  EXPECT_EQ(block->length(), 3U);
  EXPECT_EQ(block->size(), 3U);
}

TEST(WireBinaryFilling, GivesItsDataAndIsEmptyAfterwards) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock("abc"));
  const auto block = GetMessageBlock(binary, true);
  EXPECT_EQ(std::string(block->rd_ptr(), block->length()), "abc");
  EXPECT_EQ(binary.size_in_bytes, 0U);
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
  EXPECT_EQ(binary.data, nullptr);
}

TEST(WireBinaryFilling, WithoutDataIsEmptyAfterwardsToo) {
  WireBinary binary;
  SetWireBinary(binary, *MakeBlock(""));
  ASSERT_EQ(binary.digest.View(), md5OfNothing);
  GetMessageBlock(binary, false);
  EXPECT_EQ(binary.digest.View(), md5OfNothing);
  GetMessageBlock(binary, true);
  EXPECT_EQ(binary.digest.size_in_bytes, 0U);
}

TEST(WireBinaryFilling, WithoutDataGivesAnEmptyBlock) {
  WireBinary binary;
  for (const bool bRelease : {false, true}) {
    const auto block = GetMessageBlock(binary, bRelease);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->length(), 0U);
  }
}

TEST(WireConstants, AreThoseOfTheWire) {
  EXPECT_EQ(WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT, 1U);
  EXPECT_EQ(WIRE_REQ_TYPE_REGISTER_INSTANCE, 2U);
  EXPECT_EQ(WIRE_REQ_TYPE_UPDATE_STATUS, 3U);
  EXPECT_EQ(WIRE_REQ_TYPE_CONFIGURATION_UPDATE, 4U);
  EXPECT_EQ(WIRE_REQ_TYPE_CODE_UPDATE, 5U);
  EXPECT_EQ(WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT_2, 6U);
  EXPECT_EQ(CONNECTION_FLAG_NONE, 0U);
  EXPECT_EQ(CONNECTION_FLAG_DIAGNOSTIC, 1U);
  EXPECT_EQ(maxWireStringBytes, 1048576U);
  EXPECT_EQ(maxWireDigestBytes, 32U);
  EXPECT_EQ(maxWireDataBytes, 104857600U);
  EXPECT_STREQ(WireVersionText(WireProtocol::Version1), "1.0");
  EXPECT_STREQ(WireVersionText(WireProtocol::Version2), "2.0");
}

TEST(WireResultText, OfEveryCode) {
  const std::vector<std::pair<std::uint32_t, const char*>> texts{
      {0, "Success"},
      {1, "Registration success; new agent created"},
      {2, "Registration success; existing agent registered"},
      {3, "Registration succeeded but the agent has been deleted"},
      {4, "Registration succeeded. The agent was previously deleted but was manually recreated"},
      {5, "No update needed"},
      {6, "Switch configuration server"},
      {7, "Updates for this agent are marked as disabled on the server"},
      {8, "Unknown error"},
      {0x7FFFFFFF, "Unknown error"},
      {0x80000000, "Unknown error"},
      {0x80000001, "Unknown error"},
      {0x80000002, "Server too busy; try again later"},
      {0x80000003,
       "The certificate presented by the configuration server was either missing or its chain was not "
       "validated/trusted"},
      {0x80000004,
       "The configuration server did not respond within a reasonable amount of time or the connection was terminated "
       "unexpectedly"},
      {0x80000005, "The authentication information presented to the server was rejected"},
      {0x80000006, "This type of message sent was not recognized by the other end of this connection"},
      {0x80000007, "The socket connection to the server failed"},
      {0x80000008, "Unknown error"},
      {0xFFFFFFFF, "Unknown error"},
  };
  for (const auto& [code, text] : texts) EXPECT_STREQ(ResultText(code), text) << code;
}

}  // namespace
}  // namespace SSLConfigServerProto
