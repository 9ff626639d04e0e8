#include "wire/RecordIo.h"

#include "TestBlock.h"
#include "support/AllRecords.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "support/RecordingLogger.h"
#include "wire/ProtocolException.h"
#include "wire/SocketSerializer.h"

#include <host/Exceptions.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SSLConfigServerProto {
namespace {

using sorvex::test::FakeRawSocket;
using sorvex::test::HexBytes;

template <class Record>
std::string Written(const Record& record) {
  auto socket = std::make_shared<FakeRawSocket>();
  VaroCommunicationAPI::SocketSerializer serializer(socket);
  WriteRecord(serializer, record);
  return socket->Sent();
}

/// The record writes these bytes, reads them back whole, and cannot be read from less.
template <class Record>
void ExpectBytes(const Record& record, const std::string& bytes, auto... constructorArguments) {
  EXPECT_EQ(Written(record), bytes);
  {
    auto socket = std::make_shared<FakeRawSocket>(bytes + "more");
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    Record read(constructorArguments...);
    ReadRecord(serializer, read);
    EXPECT_EQ(socket->Unread(), 4U);
    EXPECT_EQ(Written(read), bytes);
  }
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    VaroCommunicationAPI::SocketSerializer serializer(std::make_shared<FakeRawSocket>(bytes.substr(0, cut)));
    Record read(constructorArguments...);
    EXPECT_THROW(ReadRecord(serializer, read), WindowsAgentCommon::SocketException) << cut;
  }
}

void SetIdentity(IdentityRecord& request, const char* version, const std::string& identifier,
                 const std::string& token) {
  SetWireString(request.wireProtocolVersion, version);
  SetWireString(request.applicationIdentifier, identifier);
  SetWireString(request.applicationToken, token);
}

TEST(RequestBytes, ConnectionEstablishment) {
  ConnectionEstablishmentRequest request;
  SetIdentity(request, "1.0", "A", "B");
  CompleteRequest(request, WireProtocol::Version1);
  ExpectBytes(request, HexBytes("00000001 00000018 00000003 '1.0' | 00000003 '1.0' 00000001 'A' 00000001 'B'"));
}

TEST(RequestBytes, ConnectionEstablishment2) {
  ConnectionEstablishmentRequest2 request;
  SetIdentity(request, "2.0", "A", "B");
  request.connection_flags = CONNECTION_FLAG_DIAGNOSTIC;
  request.timestamp = 0x0102030405060708;
  SetWireString(request.timeZone, "UTC");
  SetWireBinary(request.public_key, *MakeBlock("abc"));
  CompleteRequest(request, WireProtocol::Version2);
  // 7 + 7 + 5 + 5 + 4 + 8 + 7 + (8 + 32 + 3) = 86
  ExpectBytes(request, HexBytes("00000006 00000056 00000003 '2.0' | 00000003 '2.0' 00000001 'A' 00000001 'B'"
                                "00000001 0102030405060708 00000003 'UTC'"
                                "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'"));
}

TEST(RequestBytes, RegisterInstance) {
  RegisterInstanceRequest request;
  SetWireString(request.osVersion, "Linux 6.1");
  SetWireString(request.agentVersion, "7.2.5");
  CompleteRequest(request, WireProtocol::Version1);
  ExpectBytes(request, HexBytes("00000002 00000021 00000003 '1.0' | 00000009 'Linux 6.1' 00000005 '7.2.5' 00000000"));
  SetWireString(request.autoCreationParameters, "a=b");
  CompleteRequest(request, WireProtocol::Version2);
  ExpectBytes(request,
              HexBytes("00000002 00000024 00000003 '2.0' | 00000009 'Linux 6.1' 00000005 '7.2.5' 00000003 'a=b'"));
}

TEST(RequestBytes, UpdateStatus) {
  UpdateStatusRequest request;
  request.status = 0x01020304;
  request.statusTime = 0xFFFFFFFE;
  CompleteRequest(request, WireProtocol::Version1);
  ExpectBytes(request, HexBytes("00000003 0000000F 00000003 '1.0' | 01020304 FFFFFFFE"));
  CompleteRequest(request, WireProtocol::Version2);
  ExpectBytes(request, HexBytes("00000003 0000000F 00000003 '2.0' | 01020304 FFFFFFFE"));
}

TEST(RequestBytes, ConfigurationUpdate) {
  ConfigurationUpdateRequest request;
  SetWireString(request.currentMD5, std::string(32, 'F'));
  CompleteRequest(request, WireProtocol::Version1);
  ExpectBytes(request, HexBytes("00000004 0000002B 00000003 '1.0' | 00000020 'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF'"));
  CompleteRequest(request, WireProtocol::Version2);
  ExpectBytes(request, HexBytes("00000004 0000002B 00000003 '2.0' | 00000020 'FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF'"));
}

TEST(RequestBytes, CodeUpdate) {
  CodeUpdateRequest request;
  SetWireString(request.currentVersion, "7.2.5");
  CompleteRequest(request, WireProtocol::Version1);
  ExpectBytes(request, HexBytes("00000005 00000010 00000003 '1.0' | 00000005 '7.2.5'"));
  CompleteRequest(request, WireProtocol::Version2);
  ExpectBytes(request, HexBytes("00000005 00000010 00000003 '2.0' | 00000005 '7.2.5'"));
}

template <class Response>
void SetHeader(Response& response, std::uint32_t type, const char* version, std::uint32_t resultCode) {
  response.requestType = type;
  SetWireString(response.recordVersion, version);
  response.resultCode = resultCode;
  response.recordSize = MeasureRecord(response);
}

TEST(ResponseBytes, OfAResultAlone) {
  ConnectionEstablishmentResponse establishment;
  SetHeader(establishment, 1, "1.0", 0x80000005);
  ExpectBytes(establishment, HexBytes("00000001 0000000B 00000003 '1.0' | 80000005"));
  RegisterInstanceResponse registration;
  SetHeader(registration, 2, "2.0", 2);
  ExpectBytes(registration, HexBytes("00000002 0000000B 00000003 '2.0' | 00000002"));
  UpdateStatusResponse status;
  SetHeader(status, 3, "", 0);
  ExpectBytes(status, HexBytes("00000003 00000008 00000000 | 00000000"));
}

TEST(ResponseBytes, ConnectionEstablishment2) {
  ConnectionEstablishmentResponse2 response;
  SetWireString(response.wireProtocolVersion, "2.0");
  SetHeader(response, 6, "2.0", 0);
  ExpectBytes(response, HexBytes("00000006 00000012 00000003 '2.0' | 00000000 00000003 '2.0'"));
}

TEST(ResponseBytes, ConfigurationUpdateOfVersion1HasOnlyTheConfiguration) {
  ConfigurationUpdateResponse response(WireProtocol::Version1);
  SetWireBinary(response.serverPublicKey, *MakeBlock("key"));
  SetWireBinary(response.configurationData, *MakeBlock("abc"));
  SetHeader(response, 4, "1.0", 0);
  ExpectBytes(response, HexBytes("00000004 00000012 00000003 '1.0' | 00000000 00000003 'abc'"), WireProtocol::Version1);
}

TEST(ResponseBytes, ConfigurationUpdateOfVersion2HasTheServersKeyFirst) {
  ConfigurationUpdateResponse response(WireProtocol::Version2);
  SetWireBinary(response.serverPublicKey, *MakeBlock("key"));
  SetWireBinary(response.configurationData, *MakeBlock("abc"));
  SetHeader(response, 4, "2.0", 0);
  ExpectBytes(response,
              HexBytes("00000004 00000061 00000003 '2.0' | 00000000"
                       "00000003 00000020 '3c6e0b8a9c15224a8228b9a98ca1531d' 'key'"
                       "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'"),
              WireProtocol::Version2);
}

TEST(ResponseBytes, CodeUpdate) {
  CodeUpdateResponse version1(WireProtocol::Version1);
  SetWireBinary(version1.codeData, *MakeBlock("abc"));
  SetHeader(version1, 5, "1.0", 5);
  ExpectBytes(version1, HexBytes("00000005 00000012 00000003 '1.0' | 00000005 00000003 'abc'"), WireProtocol::Version1);
  CodeUpdateResponse version2(WireProtocol::Version2);
  SetWireBinary(version2.codeData, *MakeBlock("abc"));
  SetHeader(version2, 5, "2.0", 5);
  ExpectBytes(version2,
              HexBytes("00000005 00000036 00000003 '2.0' | 00000005"
                       "00000003 00000020 '900150983cd24fb0d6963f7d28e17f72' 'abc'"),
              WireProtocol::Version2);
}

TEST(RecordSize, OfEstablishmentForSeveralLengths) {
  struct {
    std::size_t identifier, token, timeZone, key;
    std::uint32_t version1, version2;
  } const rows[] = {
      {0, 0, 0, 0, 22, 78},                  // 7 + 7 + 4 + 4; and 4 + 8 + 4 + (4 + 4 + 32)
      {1, 1, 1, 1, 24, 82},                  // 7 + 7 + 5 + 5; and 4 + 8 + 5 + 41
      {37, 36, 60, 1024, 95, 1235},          // 7 + 7 + 41 + 40; and 4 + 8 + 64 + 1064
      {300, 70000, 300, 162, 70322, 70840},  // 7 + 7 + 304 + 70004; and 4 + 8 + 304 + 202
  };
  for (const auto& row : rows) {
    ConnectionEstablishmentRequest2 request;
    SetIdentity(request, "2.0", std::string(row.identifier, 'i'), std::string(row.token, 't'));
    SetWireString(request.timeZone, std::string(row.timeZone, 'z'));
    SetWireBinary(request.public_key, *MakeBlock(std::string(row.key, 'k')));
    CompleteRequest(request, WireProtocol::Version2);
    EXPECT_EQ(request.recordSize, row.version2);
    EXPECT_EQ(request.requestType, 6U);

    ConnectionEstablishmentRequest old;
    SetIdentity(old, "1.0", std::string(row.identifier, 'i'), std::string(row.token, 't'));
    CompleteRequest(old, WireProtocol::Version1);
    EXPECT_EQ(old.recordSize, row.version1);
    EXPECT_EQ(old.requestType, 1U);
  }
}

TEST(RecordSize, OfTheOtherRequestsForSeveralLengths) {
  const auto sizeOf = [](auto request) {
    CompleteRequest(*request, WireProtocol::Version2);
    EXPECT_EQ(Written(*request).size(), request->recordSize + 8U);
    return request->recordSize;
  };
  for (const std::uint32_t length : {0U, 1U, 32U, 255U, 65536U}) {
    const std::string text(length, 'x');
    auto registration = std::make_unique<RegisterInstanceRequest>();
    SetWireString(registration->osVersion, text);
    SetWireString(registration->agentVersion, "7.2.5");
    SetWireString(registration->autoCreationParameters, text);
    EXPECT_EQ(sizeOf(std::move(registration)), 24 + 2 * length);  // 7 + 4 + 9 + 4
    auto configuration = std::make_unique<ConfigurationUpdateRequest>();
    SetWireString(configuration->currentMD5, text);
    EXPECT_EQ(sizeOf(std::move(configuration)), 11 + length);  // 7 + 4
    auto code = std::make_unique<CodeUpdateRequest>();
    SetWireString(code->currentVersion, text);
    EXPECT_EQ(sizeOf(std::move(code)), 11 + length);
  }
  EXPECT_EQ(sizeOf(std::make_unique<UpdateStatusRequest>()), 15U);  // 7 + 4 + 4
}

TEST(RecordSize, OfTheResponsesForSeveralLengths) {
  for (const std::uint32_t length : {0U, 1U, 32U, 255U, 65536U}) {
    const std::string text(length, 'x');
    ConnectionEstablishmentResponse2 establishment;
    SetWireString(establishment.wireProtocolVersion, text);
    SetHeader(establishment, 6, "2.0", 0);
    EXPECT_EQ(establishment.recordSize, 15 + length);  // 7 + 4 + 4
    ConfigurationUpdateResponse configuration1(WireProtocol::Version1);
    SetWireBinary(configuration1.configurationData, *MakeBlock(text));
    SetHeader(configuration1, 4, "1.0", 0);
    EXPECT_EQ(configuration1.recordSize, 15 + length);
    ConfigurationUpdateResponse configuration2(WireProtocol::Version2);
    SetWireBinary(configuration2.serverPublicKey, *MakeBlock(text));
    SetWireBinary(configuration2.configurationData, *MakeBlock("abc"));
    SetHeader(configuration2, 4, "2.0", 0);
    EXPECT_EQ(configuration2.recordSize, 94 + length);  // 7 + 4 + (4 + 4 + 32) + (4 + 4 + 32 + 3)
    for (const auto& [protocol, size] :
         {std::pair(WireProtocol::Version1, 15U), std::pair(WireProtocol::Version2, 51U)}) {
      CodeUpdateResponse code(protocol);
      SetWireBinary(code.codeData, *MakeBlock(text));
      SetHeader(code, 5, "2.0", 0);
      EXPECT_EQ(code.recordSize, size + length);  // 7 + 4 + 4, and 4 + 32 of the digest
    }
  }
}

TEST(RecordSize, OfAnEmptyKeyCountsADigestThatIsNotWritten) {
  ConnectionEstablishmentRequest2 request;
  SetWireBinary(request.public_key, *MakeBlock(""));
  CompleteRequest(request, WireProtocol::Version2);
  EXPECT_EQ(request.recordSize, 7U + 4 + 4 + 4 + 4 + 8 + 4 + 40);
  EXPECT_EQ(Written(request).size(), request.recordSize + 8U - 36U);
}

using Fields = std::vector<std::pair<std::string, std::size_t>>;

TEST(RecordReading, NamesEachFieldBeforeAByteOfItIsRead) {
  auto socket = std::make_shared<FakeRawSocket>(
      HexBytes("00000004 00000000 00000003 '2.0' 00000007 00000001 00000000 'k' 00000001 00000000 'c'"));
  VaroCommunicationAPI::SocketSerializer serializer(socket);
  ConfigurationUpdateResponse response(WireProtocol::Version2);
  Fields seen;
  ReadRecord(serializer, response, [&](std::string_view field) { seen.emplace_back(field, socket->Unread()); });
  EXPECT_EQ(seen, (Fields{{"requestType", 37},
                          {"recordSize", 33},
                          {"recordVersion", 29},
                          {"resultCode", 22},
                          {"serverPublicKey", 18},
                          {"configurationData", 9}}));
  EXPECT_EQ(response.resultCode, 7U);
}

/// Gives the texts and data that it visits a value, and keeps all fields' names with their bounds, 0 for an integer.
struct FieldFiller {
  void operator()(const char* name, std::uint32_t&) { m_fields.emplace_back(name, 0); }
  void operator()(const char* name, std::int64_t&) { m_fields.emplace_back(name, 0); }
  void operator()(const char* name, WireString& field, std::uint32_t clampLength) {
    SetWireString(field, name);
    m_fields.emplace_back(name, clampLength);
  }
  void operator()(const char* name, WireBinary& field, bool, std::uint32_t clampLength) {
    SetWireBinary(field, *MakeBlock(name));
    m_fields.emplace_back(name, clampLength);
  }

  Fields m_fields;
};

template <class Form>
class EachRecord : public testing::Test {
 protected:
  using Record = typename Form::Record;

  EachRecord() {
    FieldFiller filler;
    Record::VisitFields(m_record, filler);
    m_fields = filler.m_fields;
    m_bytes = Written(m_record);
    const auto socket = std::make_shared<FakeRawSocket>(m_bytes);
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    Record read = Form::Make();
    ReadRecord(serializer, read, [&](std::string_view) { m_offsets.push_back(m_bytes.size() - socket->Unread()); });
  }

  /// The log while a record of these bytes is read.
  static std::vector<std::string> ReadingLogs(const std::string& bytes) {
    const sorvex::test::RecordingLogger logger;
    VaroCommunicationAPI::SocketSerializer serializer(std::make_shared<FakeRawSocket>(bytes));
    Record read = Form::Make();
    EXPECT_THROW(ReadRecord(serializer, read), WindowsAgentCommon::SocketException);
    return logger->Lines("Code.SSLConfigServerAPIClient.ReadRecord");
  }

  static std::vector<std::string> FailureAt(const std::string& field) {
    return {"Debug Failed at the field " + field + " of " + Record::name + "."};
  }

  Record m_record = Form::Make();
  Fields m_fields;
  std::string m_bytes;
  std::vector<std::size_t> m_offsets;  ///< of the fields
};

template <class List>
struct TestTypes;
template <class... Forms>
struct TestTypes<sorvex::test::TypeList<Forms...>> {
  using Type = testing::Types<Forms...>;
};
TYPED_TEST_SUITE(EachRecord, TestTypes<sorvex::test::AllRecords>::Type);

TYPED_TEST(EachRecord, TellsTheFieldThatIsCutShort) {
  ASSERT_EQ(this->m_fields.size(), this->m_offsets.size());
  for (std::size_t i = 0; i < this->m_fields.size(); ++i) {
    const std::string& field = this->m_fields[i].first;
    EXPECT_EQ(this->ReadingLogs(this->m_bytes.substr(0, this->m_offsets[i])), this->FailureAt(field));
    EXPECT_EQ(this->ReadingLogs(this->m_bytes.substr(0, this->m_offsets[i] + 3)), this->FailureAt(field));
  }
}

TYPED_TEST(EachRecord, TellsTheFieldThatIsAboveItsBound) {
  ASSERT_EQ(this->m_fields.size(), this->m_offsets.size());
  for (std::size_t i = 0; i < this->m_fields.size(); ++i) {
    const auto& [field, bound] = this->m_fields[i];
    if (bound == 0) continue;
    std::string bytes = this->m_bytes.substr(0, this->m_offsets[i]);
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>((bound + 1) >> shift);
    // The empty digest of data that have one.
    bytes += std::string(4, '\0');
    EXPECT_EQ(this->ReadingLogs(bytes), this->FailureAt(field));
  }
}

TYPED_TEST(EachRecord, TellsTheFieldThatIsNotWritten) {
  ASSERT_EQ(this->m_fields.size(), this->m_offsets.size());
  for (std::size_t i = 0; i < this->m_fields.size(); ++i) {
    const sorvex::test::RecordingLogger logger;
    const auto socket = std::make_shared<FakeRawSocket>();
    socket->SetRoom(this->m_offsets[i]);
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    EXPECT_THROW(WriteRecord(serializer, this->m_record), WindowsAgentCommon::SocketException);
    EXPECT_EQ(logger->Lines("Code.SSLConfigServerAPIClient.WriteRecord"), this->FailureAt(this->m_fields[i].first));
  }
}

TEST(RecordReading, LogsNothingAboutAFieldAtWhichTheReaderItselfStops) {
  const sorvex::test::RecordingLogger logger;
  VaroCommunicationAPI::SocketSerializer serializer(std::make_shared<FakeRawSocket>(HexBytes("00000003")));
  UpdateStatusResponse response;
  const auto stop = [](std::string_view field) {
    if (field == "recordSize") throw ProtocolException("file", "function", 1);
  };
  EXPECT_THROW(ReadRecord(serializer, response, stop), ProtocolException);
  EXPECT_TRUE(logger->Lines("Code.SSLConfigServerAPIClient.ReadRecord").empty());
}

TEST(RecordReading, KeepsASizeThatIsWrong) {
  VaroCommunicationAPI::SocketSerializer serializer(
      std::make_shared<FakeRawSocket>(HexBytes("00000003 FFFFFFFF 00000003 '1.0' 00000000")));
  UpdateStatusResponse response;
  ReadRecord(serializer, response);
  EXPECT_EQ(response.recordSize, 0xFFFFFFFFU);
}

TEST(RecordWriting, RefusesDataOfAnotherLengthThanTheirs) {
  ConnectionEstablishmentRequest2 request;
  SetWireBinary(request.public_key, *MakeBlock("key"));
  request.public_key.data->rd_ptr(1);
  auto socket = std::make_shared<FakeRawSocket>();
  VaroCommunicationAPI::SocketSerializer serializer(socket);
  EXPECT_THROW(WriteRecord(serializer, request), WindowsAgentCommon::SocketException);
  // The fields before the data were written, but none of the data.
  EXPECT_EQ(socket->Sent().size(), 4U + 4 + 4 + 4 + 4 + 4 + 4 + 8 + 4);
}

TEST(RecordReading, RefusesARequestWhoseTextIsTooLong) {
  VaroCommunicationAPI::SocketSerializer serializer(
      std::make_shared<FakeRawSocket>(HexBytes("00000005 00000000 00000003 '1.0' 00100001")));
  CodeUpdateRequest request;
  EXPECT_THROW(ReadRecord(serializer, request), WindowsAgentCommon::SocketException);
}

}  // namespace
}  // namespace SSLConfigServerProto
