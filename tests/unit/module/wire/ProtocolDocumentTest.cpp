// The examples of docs/protocol.md are what the clients write and read.
#include "TestBlock.h"
#include "support/AllRecords.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "wire/ProtocolMismatchException.h"
#include "wire/SSLConfigServerAPIClient_v1.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>
#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace SSLConfigServerProto {
namespace {

using sorvex::test::FakeRawSocket;
using sorvex::test::HexBytes;
using VaroCommunicationAPI::SocketSerializer;
using WindowsAgentCommon::ISerializer;
using WindowsAgentCommon::SocketException;

constexpr auto Version1 = WireProtocol::Version1;
constexpr auto Version2 = WireProtocol::Version2;

constexpr const char* identifier = "agent-7";
constexpr const char* token = "4b1d-99e0";
constexpr const char* publicKey = "agent key";
constexpr const char* establishment2 = "ConnectionEstablishmentRequest2 2.0";
constexpr const char* answerOfOldServer = "answer of a 1.0 server";

std::vector<std::string> ReadDocument() {
  std::ifstream document(PROTOCOL_DOCUMENT);
  std::vector<std::string> lines;
  for (std::string line; std::getline(document, line);) lines.push_back(line);
  return lines;
}

/// The bytes of the examples by their names. The name is in the line "**Example: <name>**..." before its dump, whose
/// lines are offset, bytes, a bar and their meaning.
std::map<std::string, std::string> ReadExamples() {
  constexpr std::string_view label = "**Example: ";
  constexpr std::size_t offsetDigits = 4;
  std::map<std::string, std::string> examples;
  std::string name;
  std::string* bytes = nullptr;
  for (const std::string& line : ReadDocument()) {
    if (line.starts_with(label)) {
      name = line.substr(label.size(), line.find("**", label.size()) - label.size());
    } else if (line == "```hex") {
      const auto [example, bNew] = examples.try_emplace(std::exchange(name, {}));
      EXPECT_TRUE(bNew && !example->first.empty()) << "a dump without a name of its own: " << example->first;
      bytes = &example->second;
    } else if (line == "```") {
      bytes = nullptr;
    } else if (bytes != nullptr) {
      EXPECT_EQ(std::stoul(line.substr(0, offsetDigits), nullptr, 16), bytes->size()) << line;
      *bytes += HexBytes(line.substr(offsetDigits, line.find('|') - offsetDigits));
    }
  }
  return examples;
}

std::unique_ptr<ISSLConfigServerAPIClient> MakeClient(WireProtocol protocol) {
  if (protocol == Version1) return std::make_unique<SSLConfigServerAPIClient_v1>(identifier, token);
  return std::make_unique<SSLConfigServerAPIClient_v2>(identifier, token, *MakeBlock(publicKey));
}

using Exchange = std::function<std::uint32_t(ISSLConfigServerAPIClient&, ISerializer&)>;

std::uint32_t Establish(ISSLConfigServerAPIClient& client, ISerializer& serializer) {
  return client.ConnectionEstablishment(serializer, CONNECTION_FLAG_DIAGNOSTIC);
}

Exchange Register(const char* autoCreationParameters) {
  return [=](ISSLConfigServerAPIClient& client, ISerializer& serializer) {
    return client.RegisterInstance(serializer, "Debian 12", "7.2.5", autoCreationParameters);
  };
}

Exchange Update(std::uint32_t status) {
  return [=](ISSLConfigServerAPIClient& client, ISerializer& serializer) {
    return client.UpdateStatus(serializer, status, 1795209053);
  };
}

Exchange UpdateConfiguration(const char* currentMD5) {
  return [=](ISSLConfigServerAPIClient& client, ISerializer& serializer) {
    return client.ConfigurationUpdate(serializer, currentMD5);
  };
}

std::uint32_t UpdateCode(ISSLConfigServerAPIClient& client, ISerializer& serializer) {
  return client.CodeUpdate(serializer, "x64_72_agentcore");
}

constexpr const char* noMD5 = "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";
constexpr const char* configuration = "<AgentConfig/>";
constexpr const char* configurationMD5 = "dbdedaf012bb556acd82cb106d1a8a78";
constexpr const char* code = "code archive";
constexpr const char* codeMD5 = "2171e21fc5778d63d5692298d61b2f72";

struct RequestExample {
  const char* name;
  WireProtocol protocol;
  Exchange exchange;
};

const std::vector<RequestExample> requestExamples{
    {"ConnectionEstablishmentRequest 1.0", Version1, Establish},
    {"RegisterInstanceRequest 1.0", Version1, Register("")},
    {"RegisterInstanceRequest 2.0", Version2, Register("&AutoCreation.Enabled=true")},
    {"UpdateStatusRequest 1.0", Version1, Update(1)},
    {"UpdateStatusRequest 2.0", Version2, Update(2)},
    {"ConfigurationUpdateRequest 1.0", Version1, UpdateConfiguration(noMD5)},
    {"ConfigurationUpdateRequest 2.0", Version2, UpdateConfiguration(configurationMD5)},
    {"CodeUpdateRequest 1.0", Version1, UpdateCode},
    {"CodeUpdateRequest 2.0", Version2, UpdateCode},
};

/// What a client holds; empty texts where it holds nothing.
struct Held {
  std::string configuration{};
  std::string configurationMD5{};
  std::string code{};
  std::string codeMD5{};
  std::string serverKey{};

  bool operator==(const Held&) const = default;
};

Held GetHeld(const ISSLConfigServerAPIClient& client) {
  Held held;
  std::shared_ptr<ACE_Message_Block> block;
  if (client.GetConfigurationData(block, held.configurationMD5)) held.configuration = Content(block);
  if (client.GetCodeData(block, held.codeMD5)) held.code = Content(block);
  if (client.GetServerPublicKey(block)) held.serverKey = Content(block);
  return held;
}

struct ResponseExample {
  const char* name;
  WireProtocol protocol;
  RequestType type;
  Exchange exchange;
  std::uint32_t resultCode;
  Held held{};
};

const std::vector<ResponseExample> responseExamples{
    {"ConnectionEstablishmentResponse 1.0", Version1, WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT, Establish, 0},
    {"ConnectionEstablishmentResponse2 2.0", Version2, WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT_2, Establish, 0},
    {"RegisterInstanceResponse 1.0", Version1, WIRE_REQ_TYPE_REGISTER_INSTANCE, Register(""), 1},
    {"RegisterInstanceResponse 2.0", Version2, WIRE_REQ_TYPE_REGISTER_INSTANCE, Register(""), 2},
    {"UpdateStatusResponse 1.0", Version1, WIRE_REQ_TYPE_UPDATE_STATUS, Update(1), 0},
    {"UpdateStatusResponse 2.0", Version2, WIRE_REQ_TYPE_UPDATE_STATUS, Update(2), 0x80000002},
    {"ConfigurationUpdateResponse 1.0",
     Version1,
     WIRE_REQ_TYPE_CONFIGURATION_UPDATE,
     UpdateConfiguration(noMD5),
     0,
     {.configuration = configuration, .configurationMD5 = configurationMD5}},
    {"ConfigurationUpdateResponse 1.0, without data", Version1, WIRE_REQ_TYPE_CONFIGURATION_UPDATE,
     UpdateConfiguration(configurationMD5), 5},
    {"ConfigurationUpdateResponse 2.0",
     Version2,
     WIRE_REQ_TYPE_CONFIGURATION_UPDATE,
     UpdateConfiguration(noMD5),
     0,
     {.configuration = configuration, .configurationMD5 = configurationMD5, .serverKey = "server key"}},
    {"ConfigurationUpdateResponse 2.0, without data", Version2, WIRE_REQ_TYPE_CONFIGURATION_UPDATE,
     UpdateConfiguration(configurationMD5), 5},
    {"CodeUpdateResponse 1.0", Version1, WIRE_REQ_TYPE_CODE_UPDATE, UpdateCode, 0, {.code = code, .codeMD5 = codeMD5}},
    {"CodeUpdateResponse 2.0", Version2, WIRE_REQ_TYPE_CODE_UPDATE, UpdateCode, 0, {.code = code, .codeMD5 = codeMD5}},
};

class ProtocolDocument : public testing::Test {
 protected:
  /// Reads the example as a record that the client itself need not check.
  template <class Record>
  void Read(const std::string& name, Record& record) const {
    SocketSerializer serializer(std::make_shared<FakeRawSocket>(m_examples.at(name)));
    ReadRecord(serializer, record);
  }

  const std::map<std::string, std::string> m_examples = ReadExamples();
};

TEST_F(ProtocolDocument, HasAnExampleOfEveryRecord) {
  std::vector<std::string> expected{establishment2, answerOfOldServer};
  for (const RequestExample& example : requestExamples) expected.push_back(example.name);
  for (const ResponseExample& example : responseExamples) expected.push_back(example.name);
  std::vector<std::string> names;
  for (const auto& [name, bytes] : m_examples) names.push_back(name);
  EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
  sorvex::test::AllRecords::ForEach([&]<class Form>(Form) {
    EXPECT_THAT(names, testing::Contains(std::string(Form::Record::name) + ' ' + WireVersionText(Form::protocol)));
  });
}

TEST_F(ProtocolDocument, RequestsAreWhatTheClientsWrite) {
  for (const RequestExample& example : requestExamples) {
    const auto socket = std::make_shared<FakeRawSocket>();
    SocketSerializer serializer(socket);
    // Nobody answers.
    EXPECT_THROW(example.exchange(*MakeClient(example.protocol), serializer), SocketException) << example.name;
    EXPECT_EQ(socket->Sent(), m_examples.at(example.name)) << example.name;
  }
}

TEST_F(ProtocolDocument, EstablishmentOfVersion2IsItsRecordWritten) {
  ConnectionEstablishmentRequest2 request;
  SetWireString(request.wireProtocolVersion, "2.0");
  SetWireString(request.applicationIdentifier, identifier);
  SetWireString(request.applicationToken, token);
  request.connection_flags = CONNECTION_FLAG_DIAGNOSTIC;
  request.timestamp = 1795209053;
  SetWireString(request.timeZone, "CET (UTC + 60) Daylight Savings is not in effect");
  SetWireBinary(request.public_key, *MakeBlock(publicKey));
  CompleteRequest(request, Version2);
  const auto socket = std::make_shared<FakeRawSocket>();
  SocketSerializer serializer(socket);
  WriteRecord(serializer, request);
  EXPECT_EQ(socket->Sent(), m_examples.at(establishment2));
}

TEST_F(ProtocolDocument, EstablishmentOfVersion2IsWhatTheClientWritesButForTimeAndZone) {
  const auto socket = std::make_shared<FakeRawSocket>();
  SocketSerializer serializer(socket);
  EXPECT_THROW(Establish(*MakeClient(Version2), serializer), SocketException);

  const std::string example = m_examples.at(establishment2);
  const std::string sent = socket->Sent();
  ConnectionEstablishmentRequest2 shown;
  Read(establishment2, shown);
  ConnectionEstablishmentRequest2 written;
  SocketSerializer reader(std::make_shared<FakeRawSocket>(sent));
  ReadRecord(reader, written);

  constexpr std::size_t versionAt = 8;     // after requestType and recordSize
  constexpr std::size_t timestampAt = 50;  // 8 + 7 + 7 + 11 + 13 + 4
  constexpr std::size_t keyBytes = 49;     // 4 + 4 + 32 + 9
  EXPECT_EQ(sent.substr(0, 4), example.substr(0, 4));
  EXPECT_EQ(sent.substr(versionAt, timestampAt - versionAt), example.substr(versionAt, timestampAt - versionAt));
  EXPECT_EQ(sent.substr(sent.size() - keyBytes), example.substr(example.size() - keyBytes));
  EXPECT_EQ(written.recordSize - written.timeZone.size_in_bytes, shown.recordSize - shown.timeZone.size_in_bytes);
}

struct HeaderAlone : RecordHeader {
  static constexpr const char* name = "HeaderAlone";
};

TEST_F(ProtocolDocument, AnEmptyKeyIsItsLengthAloneAndTheRecordShorterThanItsSize) {
  const auto socket = std::make_shared<FakeRawSocket>();
  SocketSerializer serializer(socket);
  SSLConfigServerAPIClient_v2 client(identifier, token, *MakeBlock(""));
  EXPECT_THROW(Establish(client, serializer), SocketException);

  const std::string sent = socket->Sent();
  SocketSerializer reader(std::make_shared<FakeRawSocket>(sent));
  HeaderAlone header;
  ReadRecord(reader, header);
  EXPECT_TRUE(sent.ends_with(HexBytes("'in effect' 00 00 00 00")));
  EXPECT_EQ(header.recordSize, sent.size() - 8 + 36);
}

TEST_F(ProtocolDocument, ResponsesAreReadByTheClientsWithTheValuesTold) {
  for (const ResponseExample& example : responseExamples) {
    const auto socket = std::make_shared<FakeRawSocket>(m_examples.at(example.name));
    SocketSerializer serializer(socket);
    const auto client = MakeClient(example.protocol);
    EXPECT_EQ(example.exchange(*client, serializer), example.resultCode) << example.name;
    EXPECT_EQ(socket->Unread(), 0U) << example.name;
    EXPECT_EQ(GetHeld(*client), example.held) << example.name;
  }
}

TEST_F(ProtocolDocument, ResponsesHaveTheHeaderThatNoClientChecks) {
  for (const ResponseExample& example : responseExamples) {
    HeaderAlone header;
    Read(example.name, header);
    EXPECT_EQ(header.requestType, example.type) << example.name;
    EXPECT_EQ(header.recordSize, m_examples.at(example.name).size() - 8) << example.name;
    EXPECT_EQ(header.recordVersion.View(), WireVersionText(example.protocol)) << example.name;
  }
}

TEST_F(ProtocolDocument, ResponsesHaveTheFieldsThatNoClientHandsOut) {
  ConnectionEstablishmentResponse2 established;
  Read("ConnectionEstablishmentResponse2 2.0", established);
  EXPECT_EQ(established.wireProtocolVersion.View(), "2.0");

  ConfigurationUpdateResponse update(Version2);
  Read("ConfigurationUpdateResponse 2.0", update);
  EXPECT_EQ(update.serverPublicKey.digest.View(), "f64fd9a4c8df59ad41e2a40008bcbacf");
}

TEST_F(ProtocolDocument, ClientOfVersion2ReadsFourBytesOfAnOldServer) {
  const auto socket = std::make_shared<FakeRawSocket>(m_examples.at(answerOfOldServer));
  SocketSerializer serializer(socket);
  EXPECT_THROW(Establish(*MakeClient(Version2), serializer), ProtocolMismatchException);
  EXPECT_EQ(socket->Unread(), 0U);

  socket->Say(m_examples.at("ConnectionEstablishmentResponse 1.0"));
  EXPECT_EQ(Establish(*MakeClient(Version1), serializer), 0U);
}

TEST_F(ProtocolDocument, WhatAnOldServerSaysBesidesStandsInTheWay) {
  const std::string response = m_examples.at("ConnectionEstablishmentResponse 1.0");
  const auto socket = std::make_shared<FakeRawSocket>(response);
  SocketSerializer serializer(socket);
  EXPECT_THROW(Establish(*MakeClient(Version2), serializer), ProtocolMismatchException);
  EXPECT_EQ(socket->Unread(), 15U);

  socket->Say(response);
  EXPECT_THROW(Establish(*MakeClient(Version1), serializer), SocketException);
  // Type, size and the length of a text were read; the text is over its bound.
  EXPECT_EQ(socket->Unread(), 15U + response.size() - 12);
}

TEST_F(ProtocolDocument, TellsTheTextOfEveryResultCode) {
  std::map<std::uint32_t, std::string> told;
  bool bResultCodes = false;
  for (const std::string& line : ReadDocument()) {
    if (line.starts_with('#')) bResultCodes = line == "### Result codes";
    if (!bResultCodes || !line.starts_with("| ")) continue;
    char* end = nullptr;
    const unsigned long resultCode = std::strtoul(line.c_str() + 2, &end, 0);
    const std::string_view rest = end;
    if (rest.starts_with(" | ")) told[static_cast<std::uint32_t>(resultCode)] = rest.substr(3, rest.size() - 5);
  }
  for (const auto& [resultCode, text] : told) EXPECT_EQ(text, ResultText(resultCode));
  // One row each, except the unknown code.
  EXPECT_EQ(told.size(), 14U);
}

}  // namespace
}  // namespace SSLConfigServerProto
