// The order of slots that other programs of the agent are compiled against. Reads the numbers from member-function
// pointers as made by the Itanium C++ ABI, that of GCC and Clang on Linux and of mingw-w64.
#include "connection/ConfigServerConnection.h"
#include "sockets/SSLTCPRawSocket.h"
#include "sockets/TCPRawSocket.h"
#include "wire/ISSLConfigServerAPIClient.h"

#include <host/IConfigurationServerConnection.h>
#include <host/IConnectionFactory.h>
#include <host/ISerializer.h>
#include <host/ITCPSocket.h>
#include <host/IUDPSocket.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

namespace {

using namespace WindowsAgentCommon;
using SSLConfigServerProto::ISSLConfigServerAPIClient;
using VaroCommunicationAPI::SSLTCPRawSocket;
using VaroCommunicationAPI::TCPRawSocket;
using Block = std::shared_ptr<ACE_Message_Block>;

constexpr std::ptrdiff_t noSlot = -1;

/// Returns the slot of a virtual operation, counted from the destructor of slot 0.
template <class Operation>
std::ptrdiff_t SlotOf(Operation operation) {
  struct {
    std::uintptr_t function;
    std::ptrdiff_t adjustment;
  } pointer;
  static_assert(sizeof pointer == sizeof operation);
  std::memcpy(&pointer, &operation, sizeof pointer);
  // Odd: one more than the offset in the table of virtual functions; even: the address of a function that is not
  // virtual.
  if (pointer.function % 2 == 0 || pointer.adjustment != 0) return noSlot;
  // A destructor has two entries in the table.
  return static_cast<std::ptrdiff_t>((pointer.function - 1) / sizeof(void*)) - 1;
}

/// Expects the operations in the slots from `first` on.
template <class... Operations>
void ExpectSlots(std::ptrdiff_t first, Operations... operations) {
  const std::vector<std::ptrdiff_t> slots{SlotOf(operations)...};
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_EQ(slots[i], first + static_cast<std::ptrdiff_t>(i)) << "operation " << i << " of those named";
  }
}

static_assert(std::has_virtual_destructor_v<IServiceComponent>);
static_assert(std::has_virtual_destructor_v<IConfigurationServerConnection>);
static_assert(std::has_virtual_destructor_v<IRawSocket>);
static_assert(std::has_virtual_destructor_v<ISerializer>);
static_assert(std::has_virtual_destructor_v<ISSLConfigServerAPIClient>);

struct Virtual {
  virtual ~Virtual() = default;
  virtual void First() {}
  virtual void Second() {}
  void NotVirtual() {}
};

TEST(SlotOf, CountsFromTheDestructor) {
  EXPECT_EQ(SlotOf(&Virtual::First), 1);
  EXPECT_EQ(SlotOf(&Virtual::Second), 2);
  EXPECT_EQ(SlotOf(&Virtual::NotVirtual), noSlot);
}

TEST(SlotOrder, OfConnectionFactory) {
  ExpectSlots(1, &IConnectionFactory::GetServiceConfigText1, &IConnectionFactory::GetServiceConfigText2,
              &IConnectionFactory::GetServiceConfigText3, &IConnectionFactory::GetServiceConfigText4,
              &IConnectionFactory::GetServiceConfigText5, &IConnectionFactory::Initialize,
              &IConnectionFactory::GetVersion, &IConnectionFactory::IsInitialized,
              &IConnectionFactory::IsRestartRequested);
  ExpectSlots(10, &IConnectionFactory::Shutdown, &IConnectionFactory::IsStandAloneMode,
              &IConnectionFactory::CreateSocket, &IConnectionFactory::CreateSSLSocket,
              &IConnectionFactory::CreateConfigServerConnection, &IConnectionFactory::ReleaseConfigServerConnection,
              &IConnectionFactory::GetParameter);
}

template <class Connection>
void ExpectConnectionSlots() {
  ExpectSlots(1, &Connection::RegisterInstance, &Connection::TestConnection, &Connection::PostHeartbeat,
              &Connection::UpdateStatus, &Connection::GetConfigurationFingerprint, &Connection::RetrieveConfiguration,
              &Connection::RetrieveSoftwarePatch, &Connection::GetServerPublicKey, &Connection::GetLastErrorCode,
              &Connection::GetLastResultCode, &Connection::GetLastErrorMessage, &Connection::Connect,
              &Connection::Disconnect);
}

TEST(SlotOrder, OfConfigurationServerConnection) { ExpectConnectionSlots<IConfigurationServerConnection>(); }

TEST(SlotOrder, OfHttpsConnection) { ExpectConnectionSlots<VaroCommunicationAPI::ConfigServerConnection>(); }

/// The slots that every socket has.
template <class Socket>
void ExpectRawSocketSlots() {
  ExpectSlots(1, &Socket::Open, &Socket::IsOpen, &Socket::Close, &Socket::IsConnected, &Socket::Connect, &Socket::Send,
              &Socket::Receive, &Socket::GetHost, &Socket::GetPort, &Socket::GetLastResultCode);
}

/// The slots that every destination socket has.
template <class Socket>
void ExpectDestinationSocketSlots() {
  ExpectRawSocketSlots<Socket>();
  ExpectSlots(11, &Socket::Initialize, &Socket::SendEvent, &Socket::Shutdown, &Socket::GetBytesSent,
              &Socket::GetMessagesSent, &Socket::GetBytesSubmitted, &Socket::GetMessagesSubmitted,
              &Socket::GetBytesTruncated, &Socket::GetMessagesTruncated, &Socket::GetBytesDropped,
              &Socket::GetMessagesDropped, &Socket::GetQueueSize);
}

TEST(SlotOrder, OfRawSocket) { ExpectRawSocketSlots<IRawSocket>(); }

TEST(SlotOrder, OfTcpSocket) {
  ExpectDestinationSocketSlots<ITCPSocket>();
  ExpectSlots(23, &ITCPSocket::GetLastConnectAttemptTime, &ITCPSocket::GetConnectedSinceTime,
              &ITCPSocket::GetLastConnectFailureTime, &ITCPSocket::GetNextReconnectTime);
}

TEST(SlotOrder, OfUdpSocket) {
  ExpectDestinationSocketSlots<IUDPSocket>();
  ExpectSlots(23, &IUDPSocket::GetConsecutiveSendFailures);
}

TEST(SlotOrder, OfTcpRawSocket) {
  ExpectRawSocketSlots<TCPRawSocket>();
  ExpectSlots(11, &TCPRawSocket::GetBytesSent, &TCPRawSocket::GetBytesReceived);
}

TEST(SlotOrder, OfTlsRawSocket) {
  ExpectRawSocketSlots<SSLTCPRawSocket>();
  ExpectSlots(11, &SSLTCPRawSocket::SetCertificateFile, &SSLTCPRawSocket::GetBytesSent,
              &SSLTCPRawSocket::GetBytesReceived);
}

template <class... Arguments>
using Operation = std::uint32_t (ISerializer::*)(Arguments...);

TEST(SlotOrder, OfSerializer) {
  ExpectSlots(1, &ISerializer::GetLastErrorCode, &ISerializer::CanSeek, &ISerializer::IsReadOnly, &ISerializer::Seek,
              &ISerializer::Skip, &ISerializer::ReadByte, &ISerializer::WriteByte,
              static_cast<Operation<std::int32_t&>>(&ISerializer::ReadShort),
              static_cast<Operation<std::uint16_t&>>(&ISerializer::ReadShort), &ISerializer::WriteShort,
              static_cast<Operation<int&>>(&ISerializer::ReadLong),
              static_cast<Operation<unsigned int&>>(&ISerializer::ReadLong),
              static_cast<Operation<long&>>(&ISerializer::ReadLong),
              static_cast<Operation<unsigned long&>>(&ISerializer::ReadLong), &ISerializer::WriteLong,
              static_cast<Operation<std::int64_t&>>(&ISerializer::ReadInt64),
              static_cast<Operation<std::uint64_t&>>(&ISerializer::ReadInt64), &ISerializer::WriteInt64,
              &ISerializer::ReadFloat, &ISerializer::WriteFloat, &ISerializer::ReadDouble, &ISerializer::WriteDouble,
              static_cast<Operation<std::uint32_t, Block&>>(&ISerializer::ReadBuffer),
              static_cast<Operation<Block&>>(&ISerializer::ReadBuffer),
              static_cast<Operation<const void*, std::uint32_t>>(&ISerializer::WriteBuffer),
              static_cast<Operation<const Block&>>(&ISerializer::WriteBuffer),
              static_cast<Operation<std::uint32_t, const Block&>>(&ISerializer::WriteBuffer));
}

TEST(SlotOrder, OfWireProtocolClient) {
  using Client = ISSLConfigServerAPIClient;
  ExpectSlots(1, &Client::ConnectionEstablishment, &Client::GetReserved, &Client::RegisterInstance,
              &Client::UpdateStatus, &Client::ConfigurationUpdate, &Client::CodeUpdate, &Client::GetConfigurationData,
              &Client::GetCodeData, &Client::GetServerPublicKey);
}

}  // namespace
