#include "wire/SocketSerializer.h"

#include "TestBlock.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"

#include <host/Exceptions.h>

#include <ace/OS_NS_errno.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {
namespace {

using sorvex::test::FakeRawSocket;
using sorvex::test::HexBytes;
using SSLConfigServerProto::Content;
using SSLConfigServerProto::MakeBlock;
using WindowsAgentCommon::OperationNotSupportedException;
using WindowsAgentCommon::SocketException;
using Call = FakeRawSocket::Call;

class SocketSerializerTest : public testing::Test {
 protected:
  std::shared_ptr<FakeRawSocket> m_socket = std::make_shared<FakeRawSocket>();
  SocketSerializer m_serializer{m_socket};
};

using SocketSerializerBasics = SocketSerializerTest;

TEST_F(SocketSerializerBasics, KeepsItsSocketAlive) {
  std::weak_ptr<FakeRawSocket> watched = m_socket;
  auto serializer = std::make_unique<SocketSerializer>(m_socket);
  m_socket.reset();
  m_serializer = SocketSerializer(nullptr);
  EXPECT_FALSE(watched.expired());
  serializer.reset();
  EXPECT_TRUE(watched.expired());
}

TEST_F(SocketSerializerBasics, LastErrorCodeIsTheSystemsOfThisThread) {
  ACE_OS::last_error(5);
  EXPECT_EQ(m_serializer.GetLastErrorCode(), 5);
  ACE_OS::last_error(0);
  EXPECT_EQ(m_serializer.GetLastErrorCode(), 0);
}

TEST_F(SocketSerializerBasics, CannotSeekAndIsNotReadOnly) {
  m_socket->Say("abc");
  EXPECT_FALSE(m_serializer.CanSeek());
  EXPECT_FALSE(m_serializer.IsReadOnly());
  EXPECT_EQ(m_serializer.Seek(2), 0U);
  EXPECT_EQ(m_serializer.Skip(2), 0U);
  EXPECT_EQ(m_socket->Unread(), 3U);
  EXPECT_TRUE(m_socket->Calls().empty());
}

/// Reads a value from the bytes and expects that exactly these were requested, at once.
template <class Value>
void ExpectRead(std::uint32_t (SocketSerializer::*read)(Value&), const char* bytes, Value expected) {
  auto socket = std::make_shared<FakeRawSocket>(HexBytes(bytes) + "more");
  SocketSerializer serializer(socket);
  Value value{};
  const std::uint32_t size = static_cast<std::uint32_t>(HexBytes(bytes).size());
  EXPECT_EQ((serializer.*read)(value), size);
  EXPECT_EQ(value, expected);
  EXPECT_EQ(socket->Calls(), (std::vector<Call>{{Call::Kind::Receive, size, 0xFFFFFFFF}}));
  EXPECT_EQ(socket->Unread(), 4U);
}

TEST(SocketSerializerReads, Byte) { ExpectRead<std::uint8_t>(&SocketSerializer::ReadByte, "FE", 0xFE); }

TEST(SocketSerializerReads, ShortOfTwoBytes) {
  ExpectRead<std::uint16_t>(&SocketSerializer::ReadShort, "FE DC", 0xFEDC);
}

TEST(SocketSerializerReads, ShortOfFourBytesConvertsOnlyTheFirstTwo) {
  ExpectRead<std::int32_t>(&SocketSerializer::ReadShort, "01 02 03 04", 0x04030102);
  ExpectRead<std::int32_t>(&SocketSerializer::ReadShort, "FF FE 00 00", 0x0000FFFE);
  ExpectRead<std::int32_t>(&SocketSerializer::ReadShort, "00 01 FF FF", static_cast<std::int32_t>(0xFFFF0001));
}

TEST(SocketSerializerReads, LongInFourOverloads) {
  ExpectRead<int>(&SocketSerializer::ReadLong, "01 02 03 04", 0x01020304);
  ExpectRead<int>(&SocketSerializer::ReadLong, "FF FF FF FE", -2);
  ExpectRead<unsigned int>(&SocketSerializer::ReadLong, "FF FF FF FE", 0xFFFFFFFEU);
  ExpectRead<long>(&SocketSerializer::ReadLong, "FF FF FF FE", -2L);
  ExpectRead<unsigned long>(&SocketSerializer::ReadLong, "FF FF FF FE", 0xFFFFFFFEUL);
}

TEST(SocketSerializerReads, Int64SignedAndUnsigned) {
  ExpectRead<std::int64_t>(&SocketSerializer::ReadInt64, "01 02 03 04 05 06 07 08", 0x0102030405060708);
  ExpectRead<std::int64_t>(&SocketSerializer::ReadInt64, "FF FF FF FF FF FF FF FE", -2);
  ExpectRead<std::uint64_t>(&SocketSerializer::ReadInt64, "FF FF FF FF FF FF FF FE", 0xFFFFFFFFFFFFFFFEU);
}

TEST(SocketSerializerReads, FloatAndDouble) {
  ExpectRead<float>(&SocketSerializer::ReadFloat, "3F C0 00 00", 1.5F);
  ExpectRead<float>(&SocketSerializer::ReadFloat, "C2 F6 E9 79", -123.456F);
  ExpectRead<double>(&SocketSerializer::ReadDouble, "3F F8 00 00 00 00 00 00", 1.5);
  ExpectRead<double>(&SocketSerializer::ReadDouble, "7F EF FF FF FF FF FF FF", std::numeric_limits<double>::max());
}

/// One write of a value: its bytes in one call.
void ExpectWrite(const std::function<std::uint32_t(SocketSerializer&)>& write, const char* bytes) {
  auto socket = std::make_shared<FakeRawSocket>();
  SocketSerializer serializer(socket);
  const std::string expected = HexBytes(bytes);
  EXPECT_EQ(write(serializer), expected.size());
  EXPECT_EQ(socket->Sent(), expected);
  EXPECT_EQ(socket->Calls(), (std::vector<Call>{{Call::Kind::Send, static_cast<std::uint32_t>(expected.size())}}));
}

TEST(SocketSerializerWrites, EachValueInNetworkOrder) {
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteByte(0xFE); }, "FE");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteShort(0x0102); }, "01 02");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteLong(0x01020304); }, "01 02 03 04");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteInt64(1); }, "00 00 00 00 00 00 00 01");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteInt64(-2); }, "FF FF FF FF FF FF FF FE");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteFloat(1.5F); }, "3F C0 00 00");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteDouble(-2.0); }, "C0 00 00 00 00 00 00 00");
}

TEST(SocketSerializerWrites, BufferAndBlocksAsTheyAre) {
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteBuffer("abc", 3); }, "'abc'");
  ExpectWrite([](SocketSerializer& serializer) { return serializer.WriteBuffer("", 0); }, "");
  const auto block = MakeBlock("abcdef");
  block->rd_ptr(2);
  ExpectWrite([&](SocketSerializer& serializer) { return serializer.WriteBuffer(block); }, "'cdef'");
  ExpectWrite([&](SocketSerializer& serializer) { return serializer.WriteBuffer(3, block); }, "'cde'");
  EXPECT_EQ(Content(block), "cdef");
}

TEST_F(SocketSerializerBasics, WritesNothingThatLiesBehindABlocksBytes) {
  EXPECT_THROW(m_serializer.WriteBuffer(4, MakeBlock("abc")), SocketException);
  EXPECT_TRUE(m_socket->Calls().empty());
}

TEST_F(SocketSerializerBasics, ReadTimeoutGoesToEveryReadUnchanged) {
  m_socket->Say("0123456789");
  std::shared_ptr<ACE_Message_Block> block;
  std::uint32_t value = 0;
  m_serializer.SetReadTimeout(120'000);
  m_serializer.ReadLong(value);
  m_serializer.ReadBuffer(2, block);
  m_serializer.SetReadTimeout(0);
  m_serializer.ReadLong(value);
  EXPECT_EQ(m_socket->Calls(),
            (std::vector<Call>{
                {Call::Kind::Receive, 4, 120'000}, {Call::Kind::Receive, 2, 120'000}, {Call::Kind::Receive, 4, 0}}));
}

TEST_F(SocketSerializerBasics, ReadBufferHandsOutANewBlock) {
  m_socket->Say("abcdef");
  const auto before = MakeBlock("old");
  std::shared_ptr<ACE_Message_Block> block = before;
  EXPECT_EQ(m_serializer.ReadBuffer(4, block), 4U);
  EXPECT_EQ(Content(block), "abcd");
  EXPECT_EQ(block->size(), 4U);
  EXPECT_EQ(Content(before), "old");
  EXPECT_EQ(m_socket->Unread(), 2U);
}

TEST_F(SocketSerializerBasics, ReadBufferOfNothingIsAnEmptyBlock) {
  std::shared_ptr<ACE_Message_Block> block;
  EXPECT_EQ(m_serializer.ReadBuffer(0, block), 0U);
  ASSERT_TRUE(block);
  EXPECT_EQ(block->length(), 0U);
  EXPECT_EQ(m_socket->Calls(), (std::vector<Call>{{Call::Kind::Receive, 0, 0xFFFFFFFF}}));
}

TEST_F(SocketSerializerBasics, ReadBufferKeepsWhatDidArrive) {
  m_socket->Say("abc");
  std::shared_ptr<ACE_Message_Block> block;
  EXPECT_THROW(m_serializer.ReadBuffer(4, block), SocketException);
  EXPECT_EQ(Content(block), "abc");
}

TEST_F(SocketSerializerBasics, ReadBufferKeepsNothingOfAnError) {
  m_socket->FailReads(-1);
  std::shared_ptr<ACE_Message_Block> block;
  EXPECT_THROW(m_serializer.ReadBuffer(4, block), SocketException);
  EXPECT_EQ(Content(block), "");
}

TEST_F(SocketSerializerBasics, ReadBufferWithoutACountIsNotSupported) {
  m_socket->Say("abc");
  auto block = MakeBlock("old");
  try {
    m_serializer.ReadBuffer(block);
    FAIL();
  } catch (const OperationNotSupportedException& exception) {
    EXPECT_EQ(exception.GetSourceFile(), "SocketSerializer");
    EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::SocketSerializer::ReadBuffer");
    EXPECT_GT(exception.GetLine(), 0);
  }
  EXPECT_TRUE(m_socket->Calls().empty());
  EXPECT_EQ(Content(block), "old");
}

TEST_F(SocketSerializerBasics, AnErrorIsNoCountHoweverMuchIsAskedFor) {
  m_socket->FailWrites(-1);
  EXPECT_THROW(m_serializer.WriteBuffer("", 0xFFFFFFFF), SocketException);
  EXPECT_THROW(m_serializer.WriteLong(1), SocketException);
}

TEST_F(SocketSerializerBasics, AFailedReadLeavesTheValueAlone) {
  m_socket->Say("abc");
  std::uint32_t value = 42;
  EXPECT_THROW(m_serializer.ReadLong(value), SocketException);
  EXPECT_EQ(value, 42U);
}

struct Operation {
  const char* name;
  std::uint32_t bytes;
  std::function<void(SocketSerializer&)> call;
};

template <class Value>
Operation ReadOperation(const char* name, std::uint32_t (SocketSerializer::*read)(Value&), std::uint32_t bytes) {
  return {name, bytes, [read](SocketSerializer& serializer) {
            Value value{};
            (serializer.*read)(value);
          }};
}

const std::vector<Operation> readOperations{
    ReadOperation<std::uint8_t>("ReadByte", &SocketSerializer::ReadByte, 1),
    ReadOperation<std::int32_t>("ReadShort", &SocketSerializer::ReadShort, 4),
    ReadOperation<std::uint16_t>("ReadShort", &SocketSerializer::ReadShort, 2),
    ReadOperation<int>("ReadLong", &SocketSerializer::ReadLong, 4),
    ReadOperation<unsigned int>("ReadLong", &SocketSerializer::ReadLong, 4),
    ReadOperation<long>("ReadLong", &SocketSerializer::ReadLong, 4),
    ReadOperation<unsigned long>("ReadLong", &SocketSerializer::ReadLong, 4),
    ReadOperation<std::int64_t>("ReadInt64", &SocketSerializer::ReadInt64, 8),
    ReadOperation<std::uint64_t>("ReadInt64", &SocketSerializer::ReadInt64, 8),
    ReadOperation<float>("ReadFloat", &SocketSerializer::ReadFloat, 4),
    ReadOperation<double>("ReadDouble", &SocketSerializer::ReadDouble, 8),
    {"ReadBuffer", 5,
     [](SocketSerializer& serializer) {
       std::shared_ptr<ACE_Message_Block> block;
       serializer.ReadBuffer(5, block);
     }},
};

const std::vector<Operation> writeOperations{
    {"WriteByte", 1, [](SocketSerializer& serializer) { serializer.WriteByte(1); }},
    {"WriteShort", 2, [](SocketSerializer& serializer) { serializer.WriteShort(1); }},
    {"WriteLong", 4, [](SocketSerializer& serializer) { serializer.WriteLong(1); }},
    {"WriteInt64", 8, [](SocketSerializer& serializer) { serializer.WriteInt64(1); }},
    {"WriteFloat", 4, [](SocketSerializer& serializer) { serializer.WriteFloat(1); }},
    {"WriteDouble", 8, [](SocketSerializer& serializer) { serializer.WriteDouble(1); }},
    {"WriteBuffer", 3, [](SocketSerializer& serializer) { serializer.WriteBuffer("abc", 3); }},
    {"WriteBuffer", 3, [](SocketSerializer& serializer) { serializer.WriteBuffer(MakeBlock("abc")); }},
    {"WriteBuffer", 3, [](SocketSerializer& serializer) { serializer.WriteBuffer(3, MakeBlock("abcd")); }},
};

void ExpectSocketException(const Operation& operation, SocketSerializer& serializer) {
  try {
    operation.call(serializer);
    ADD_FAILURE() << operation.name << " did not throw";
  } catch (const SocketException& exception) {
    EXPECT_EQ(exception.GetSourceFile(), "SocketSerializer");
    EXPECT_EQ(exception.GetFunction(), std::string("VaroCommunicationAPI::SocketSerializer::") + operation.name);
    EXPECT_GT(exception.GetLine(), 0);
  }
}

TEST(SocketSerializerFailures, EveryReadThatComesShortThrowsItsName) {
  for (const Operation& operation : readOperations) {
    for (std::uint32_t size = 0; size < operation.bytes; ++size) {
      SocketSerializer serializer(std::make_shared<FakeRawSocket>(std::string(size, 'x')));
      ExpectSocketException(operation, serializer);
    }
    auto failing = std::make_shared<FakeRawSocket>("plenty of bytes");
    failing->FailReads(-1);
    SocketSerializer serializer(failing);
    ExpectSocketException(operation, serializer);
    EXPECT_EQ(failing->Calls().size(), 1U) << operation.name << " tried again";
  }
}

TEST(SocketSerializerFailures, EveryWriteThatComesShortThrowsItsName) {
  for (const Operation& operation : writeOperations) {
    for (std::uint32_t room = 0; room < operation.bytes; ++room) {
      auto socket = std::make_shared<FakeRawSocket>();
      socket->SetRoom(room);
      SocketSerializer serializer(socket);
      ExpectSocketException(operation, serializer);
      EXPECT_EQ(socket->Calls().size(), 1U) << operation.name << " tried again";
    }
  }
}

}  // namespace
}  // namespace VaroCommunicationAPI
