// What the module needs from its system. The same on every system.
#include "ApplicationKey.h"
#include "InstallationDirectory.h"
#include "LoopbackConnection.h"

#include "platform/Files.h"
#include "platform/KeyContainer.h"
#include "platform/Memory.h"
#include "platform/NameResolver.h"
#include "platform/SocketErrors.h"
#include "platform/SocketIo.h"

#include <support/LoopbackUdpServer.h>

#include <host/SystemError.h>

#include <ace/ACE.h>
#include <ace/OS_NS_sys_socket.h>
#include <ace/SOCK_CODgram.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

namespace {

using sorvex::test::ApplicationKey;
using sorvex::test::InstallationDirectory;
using sorvex::test::LoopbackConnection;
using sorvex::test::LoopbackUdpServer;
using testing::AnyOf;
using testing::IsEmpty;
using testing::SizeIs;
using namespace VaroCommunicationAPI;
using Platform::AddressFamily;
using Platform::ResolvedHost;

const ACE_Time_Value patience(10);

// Files

class ReadFileHead : public testing::Test {
 protected:
  int Read(const std::wstring& name, std::size_t maxBytes) {
    return Platform::ReadFileHead(WindowsAgentCommon::GetConfigPath() + L"/" + name, maxBytes, m_content);
  }

  InstallationDirectory m_installation;
  Platform::SecretText m_content{"old"};
};

TEST_F(ReadFileHead, GivesWholeShortFile) {
  m_installation.Write("config/f", std::string("a\0b\r\n", 5));
  EXPECT_EQ(Read(L"f", 100), 0);
  EXPECT_EQ(m_content.View(), std::string("a\0b\r\n", 5));
}

TEST_F(ReadFileHead, GivesFileOfExactlyTheLimit) {
  m_installation.Write("config/f", "12345");
  EXPECT_EQ(Read(L"f", 5), 0);
  EXPECT_EQ(m_content.View(), "12345");
}

TEST_F(ReadFileHead, StopsAtTheLimit) {
  m_installation.Write("config/f", "12345");
  EXPECT_EQ(Read(L"f", 4), 0);
  EXPECT_EQ(m_content.View(), "1234");
}

TEST_F(ReadFileHead, GivesNothingForLimitZero) {
  m_installation.Write("config/f", "12345");
  EXPECT_EQ(Read(L"f", 0), 0);
  EXPECT_EQ(m_content.View(), "");
}

TEST_F(ReadFileHead, GivesNothingForEmptyFile) {
  m_installation.Write("config/f", "");
  EXPECT_EQ(Read(L"f", 100), 0);
  EXPECT_EQ(m_content.View(), "");
}

TEST_F(ReadFileHead, FailsForMissingFileAndEmptiesContent) {
  EXPECT_NE(Read(L"f", 100), 0);
  EXPECT_EQ(m_content.View(), "");
}

TEST_F(ReadFileHead, FailsForDirectoryAndEmptiesContent) {
  EXPECT_NE(Read(L".", 100), 0);
  EXPECT_EQ(m_content.View(), "");
}

TEST_F(ReadFileHead, FailsForDeviceAndEmptiesContent) {
  const wchar_t* const device = std::filesystem::path::preferred_separator == '/' ? L"/dev/null" : L"NUL";
  Platform::SecretText content("before");
  EXPECT_NE(Platform::ReadFileHead(device, 100, content), 0);
  EXPECT_EQ(content.View(), "");
}

TEST_F(ReadFileHead, FindsFileWithNameBeyondAscii) {
  const std::wstring name = L"Schl\u00FCssel \u9375 \U0001F511";
  m_installation.Write("config" / WindowsAgentCommon::WideToPath(name), "x");
  EXPECT_EQ(Read(name, 100), 0);
  EXPECT_EQ(m_content.View(), "x");
}

// Key containers

class KeyContainer : public testing::Test {
 protected:
  int Decrypt(const std::vector<std::uint8_t>& cipherText, const std::wstring& container = L"Test.Container") {
    return Platform::DecryptWithContainer(container, cipherText, m_plainText);
  }

  const ApplicationKey& m_key = ApplicationKey::Of(1024);
  InstallationDirectory m_installation;
  Platform::SecretText m_plainText{"old"};
};

TEST_F(KeyContainer, DecryptsMostSignificantByteFirst) {
  StoreInContainer(m_key, "Test.Container");
  EXPECT_EQ(Decrypt(m_key.Encrypt("secret")), 0);
  EXPECT_EQ(m_plainText.View(), "secret");
}

TEST_F(KeyContainer, DecryptsLongestTextOfItsKeySize) {
  StoreInContainer(m_key, "Test.Container");
  const std::string longest(1024 / 8 - 42, 'x');
  EXPECT_EQ(Decrypt(m_key.Encrypt(longest)), 0);
  EXPECT_EQ(m_plainText.View(), longest);
}

TEST_F(KeyContainer, DecryptsWithKeyOf2048Bits) {
  StoreInContainer(ApplicationKey::Of(2048), "Test.Container");
  EXPECT_EQ(Decrypt(ApplicationKey::Of(2048).Encrypt("secret")), 0);
  EXPECT_EQ(m_plainText.View(), "secret");
}

TEST_F(KeyContainer, RefusesLeastSignificantByteFirst) {
  StoreInContainer(m_key, "Test.Container");
  std::vector<std::uint8_t> cipherText = m_key.Encrypt("secret");
  std::reverse(cipherText.begin(), cipherText.end());
  EXPECT_NE(Decrypt(cipherText), 0);
  EXPECT_EQ(m_plainText.View(), "");
}

TEST_F(KeyContainer, RefusesChangedCipherText) {
  StoreInContainer(m_key, "Test.Container");
  std::vector<std::uint8_t> cipherText = m_key.Encrypt("secret");
  cipherText.back() ^= 1;
  EXPECT_NE(Decrypt(cipherText), 0);
  EXPECT_EQ(m_plainText.View(), "");
}

TEST_F(KeyContainer, RefusesNoCipherText) {
  StoreInContainer(m_key, "Test.Container");
  EXPECT_NE(Decrypt({}), 0);
  EXPECT_EQ(m_plainText.View(), "");
}

TEST_F(KeyContainer, RefusesShortCipherText) {
  StoreInContainer(m_key, "Test.Container");
  EXPECT_NE(Decrypt({1, 2, 3}), 0);
}

TEST_F(KeyContainer, RefusesLongCipherText) {
  StoreInContainer(m_key, "Test.Container");
  std::vector<std::uint8_t> cipherText = m_key.Encrypt("secret");
  cipherText.push_back(0);
  EXPECT_NE(Decrypt(cipherText), 0);
}

TEST_F(KeyContainer, AbsentGivesErrorAndNoText) {
  EXPECT_NE(Decrypt(m_key.Encrypt("secret")), 0);
  EXPECT_EQ(m_plainText.View(), "");
}

TEST_F(KeyContainer, ErrorHasText) { EXPECT_NE(WindowsAgentCommon::GetLastErrorText(Decrypt({})), ""); }

TEST(WipeMemory, OverwritesEveryByte) {
  std::string text = "secret";
  Platform::WipeMemory(text.data(), text.size());
  EXPECT_EQ(text, std::string(6, '\0'));
}

// Error numbers

class SocketErrorNumber : public testing::TestWithParam<int> {};

TEST_P(SocketErrorNumber, IsSameAfterBothConversions) {
  const Platform::SocketError error(GetParam());
  EXPECT_EQ(Platform::ToCallerError(Platform::ToSystemError(error)), error);
}

TEST_P(SocketErrorNumber, HasTextOfOneLine) {
  const std::string text = Platform::SocketError(GetParam()).Text();
  EXPECT_NE(text, "");
  EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Numbers, SocketErrorNumber,
                         testing::Values(137, 10004, 10009, 10013, 10014, 10022, 10024, 10035, 10036, 10037, 10038,
                                         10039, 10040, 10041, 10042, 10043, 10044, 10045, 10046, 10047, 10048, 10049,
                                         10050, 10051, 10052, 10053, 10054, 10055, 10056, 10057, 10058, 10059, 10060,
                                         10061, 10062, 10063, 10064, 10065, 10101, 11001, 11002, 11003));

TEST(SocketErrors, ZeroIsZero) {
  EXPECT_EQ(Platform::ToCallerError(0), Platform::ErrorNone);
  EXPECT_EQ(Platform::ToSystemError(Platform::ErrorNone), 0);
}

TEST(SocketErrors, NumberWithoutCounterpartStays) {
  EXPECT_EQ(Platform::ToCallerError(987654).Number(), 987654);
  EXPECT_EQ(Platform::ToSystemError(Platform::SocketError(987654)), 987654);
}

TEST(SocketErrors, TextsOfConditionsDiffer) {
  EXPECT_NE(Platform::SocketError(10061).Text(), Platform::SocketError(10054).Text());
  EXPECT_NE(Platform::SocketError(11001).Text(), Platform::SocketError(11002).Text());
}

// Socket operations

class SocketOperations : public testing::Test {
 protected:
  ACE_HANDLE Handle() { return m_connection.Near().get_handle(); }

  /// The state of the near end once it is not "open" any more.
  Platform::SocketError StateAfterEnd() {
    Platform::SocketError state;
    while (!state && ACE::handle_read_ready(Handle(), &patience) != -1) state = Platform::PeerState(Handle());
    return state;
  }

  LoopbackConnection m_connection;
};

TEST_F(SocketOperations, SendNowSendsWhatThereIsRoomFor) {
  m_connection.Near().enable(ACE_NONBLOCK);
  const Platform::WriteOutcome outcome = Platform::SendNow(Handle(), "hello", 5);
  EXPECT_EQ(outcome.m_bytes, 5U);
  EXPECT_EQ(outcome.m_error.Number(), 0);
  char received[5];
  EXPECT_EQ(m_connection.Far().recv_n(received, sizeof received, &patience), 5);
  EXPECT_EQ(std::string(received, 5), "hello");
}

TEST_F(SocketOperations, SendNowWouldBlockWhenThereIsNoRoom) {
  m_connection.Near().enable(ACE_NONBLOCK);
  const std::string block(65536, 'x');
  constexpr std::size_t moreThanAnySystemBuffers = std::size_t{1} << 28;
  std::size_t sent = 0;
  Platform::WriteOutcome outcome;
  while (!outcome.m_error && sent < moreThanAnySystemBuffers) {
    outcome = Platform::SendNow(Handle(), block.data(), block.size());
    sent += outcome.m_bytes;
  }
  EXPECT_EQ(outcome.m_error.Number(), 10035);
  EXPECT_EQ(outcome.m_bytes, 0U);
}

TEST_F(SocketOperations, SendNowAfterResetGivesErrorAndNoSignal) {
  m_connection.Near().enable(ACE_NONBLOCK);
  m_connection.ResetFar();
  ASSERT_EQ(ACE::handle_read_ready(Handle(), &patience), 1);
  EXPECT_EQ(Platform::SendNow(Handle(), "x", 1).m_error.Number(), 10054);
  EXPECT_NE(Platform::SendNow(Handle(), "x", 1).m_error.Number(), 0);
}

TEST_F(SocketOperations, PeerStateOfOpenConnectionIsZero) { EXPECT_EQ(Platform::PeerState(Handle()).Number(), 0); }

TEST_F(SocketOperations, PeerStateAfterOrderlyCloseIs10101) {
  m_connection.Far().close();
  EXPECT_EQ(StateAfterEnd().Number(), 10101);
}

TEST_F(SocketOperations, PeerStateAfterResetIs10054) {
  m_connection.ResetFar();
  EXPECT_EQ(StateAfterEnd().Number(), 10054);
}

TEST_F(SocketOperations, PeerStateWithDataIsOpenAndDiscardsIt) {
  ASSERT_EQ(m_connection.Far().send_n("hello", 5), 5);
  ASSERT_EQ(ACE::handle_read_ready(Handle(), &patience), 1);
  EXPECT_EQ(Platform::PeerState(Handle()).Number(), 0);
  const ACE_Time_Value atOnce(0);
  EXPECT_NE(ACE::handle_read_ready(Handle(), &atOnce), 1);
}

TEST_F(SocketOperations, PeerStateFindsCloseBehindData) {
  ASSERT_EQ(m_connection.Far().send_n("hello", 5), 5);
  m_connection.Far().close();
  EXPECT_EQ(StateAfterEnd().Number(), 10101);
}

TEST_F(SocketOperations, SetKeepAliveTurnsKeepAliveOn) {
  EXPECT_EQ(Platform::SetKeepAlive(Handle(), 30000, 1000).Number(), 0);
  int on = 0;
  int size = sizeof on;
  m_connection.Near().get_option(SOL_SOCKET, SO_KEEPALIVE, &on, &size);
  EXPECT_NE(on, 0);
}

TEST_F(SocketOperations, SetKeepAliveOnClosedHandleFails) {
  EXPECT_NE(Platform::SetKeepAlive(ACE_INVALID_HANDLE, 1, 1).Number(), 0);
}

TEST_F(SocketOperations, GuardedWriteToEndedConnectionGivesErrorOnly) {
  m_connection.ResetFar();
  ASSERT_EQ(ACE::handle_read_ready(Handle(), &patience), 1);
  const Platform::BrokenPipeGuard guard;
  EXPECT_EQ(m_connection.Near().send("x", 1), -1);
  EXPECT_EQ(m_connection.Near().send("x", 1), -1);
}

// Datagrams

/// A datagram socket that is connected to `port`, as the sockets make it.
class DatagramSocket {
 public:
  explicit DatagramSocket(std::uint16_t port) {
    const ACE_INET_Addr peer(port, "127.0.0.1");
    m_socket.set_handle(Platform::OpenSocket(AF_INET, SOCK_DGRAM));
    EXPECT_EQ(ACE_OS::connect(Handle(), static_cast<sockaddr*>(peer.get_addr()), peer.get_size()), 0);
    EXPECT_EQ(m_socket.enable(ACE_NONBLOCK), 0);
  }
  ~DatagramSocket() { m_socket.close(); }
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;

  ACE_HANDLE Handle() const { return m_socket.get_handle(); }

 private:
  ACE_SOCK_CODgram m_socket;
};

Platform::DatagramOutcome SendAll(const DatagramSocket& socket, const std::vector<std::string>& texts) {
  const std::vector<std::span<const char>> datagrams(texts.begin(), texts.end());
  return Platform::SendDatagrams(socket.Handle(), datagrams);
}

TEST(SendDatagrams, SendsEachOnceAndInOrder) {
  LoopbackUdpServer server;
  const DatagramSocket socket(server.Port());
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back(std::to_string(i));
  const Platform::DatagramOutcome outcome = SendAll(socket, texts);
  EXPECT_EQ(outcome.m_error.Number(), 0);
  EXPECT_EQ(outcome.m_datagrams, 300U);
  EXPECT_EQ(server.WaitForDatagrams(300), texts);
}

TEST(SendDatagrams, StopsAtTheFirstThatIsNotAccepted) {
  LoopbackUdpServer server;
  const DatagramSocket socket(server.Port());
  const Platform::DatagramOutcome outcome = SendAll(socket, {"one", "two", std::string(70000, 'x'), "four"});
  EXPECT_EQ(outcome.m_error.Number(), 10040);
  EXPECT_EQ(outcome.m_datagrams, 2U);
  EXPECT_EQ(SendAll(socket, {"five"}).m_datagrams, 1U);
  EXPECT_THAT(server.WaitForDatagrams(3), testing::ElementsAre("one", "two", "five"));
}

TEST(SendDatagrams, WithNoneSucceeds) {
  LoopbackUdpServer server;
  const Platform::DatagramOutcome outcome = SendAll(DatagramSocket(server.Port()), {});
  EXPECT_EQ(outcome.m_error.Number(), 0);
  EXPECT_EQ(outcome.m_datagrams, 0U);
}

// Names

bool NeverInterrupted() { return false; }

ResolvedHost Resolve(const std::wstring& host, std::uint32_t port = 514, AddressFamily family = AddressFamily::Any) {
  return Platform::ResolveHost(host, port, family, NeverInterrupted);
}

TEST(ResolveHost, TakesLiteralIPv4) {
  const ResolvedHost resolved = Resolve(L"127.0.0.1");
  EXPECT_EQ(resolved.m_error.Number(), 0);
  ASSERT_THAT(resolved.m_addresses, SizeIs(1));
  EXPECT_EQ(resolved.m_addresses[0], ACE_INET_Addr(static_cast<unsigned short>(514), "127.0.0.1"));
}

TEST(ResolveHost, TakesLiteralIPv6) {
  const ResolvedHost resolved = Resolve(L"::1");
  EXPECT_EQ(resolved.m_error.Number(), 0);
  ASSERT_THAT(resolved.m_addresses, SizeIs(1));
  EXPECT_EQ(resolved.m_addresses[0].get_type(), AF_INET6);
  EXPECT_EQ(resolved.m_addresses[0].get_port_number(), 514);
}

TEST(ResolveHost, TakesLiteralIPv6InBrackets) {
  const ResolvedHost resolved = Resolve(L"[::1]");
  ASSERT_THAT(resolved.m_addresses, SizeIs(1));
  EXPECT_TRUE(resolved.m_addresses[0].is_loopback());
}

TEST(ResolveHost, GivesNoIPv6WhenIPv4IsAskedFor) {
  const ResolvedHost resolved = Resolve(L"::1", 514, AddressFamily::IPv4);
  EXPECT_THAT(resolved.m_addresses, IsEmpty());
  EXPECT_NE(resolved.m_error.Number(), 0);
}

TEST(ResolveHost, FindsLocalhost) {
  const ResolvedHost resolved = Resolve(L"localhost");
  EXPECT_EQ(resolved.m_error.Number(), 0);
  ASSERT_FALSE(resolved.m_addresses.empty());
  EXPECT_TRUE(resolved.m_addresses[0].is_loopback());
  EXPECT_EQ(resolved.m_addresses[0].get_port_number(), 514);
}

TEST(ResolveHost, FindsOnlyIPv4OfLocalhostWhenAskedFor) {
  const ResolvedHost resolved = Resolve(L"localhost", 514, AddressFamily::IPv4);
  ASSERT_FALSE(resolved.m_addresses.empty());
  for (const ACE_INET_Addr& address : resolved.m_addresses) EXPECT_EQ(address.get_type(), AF_INET);
}

TEST(ResolveHost, DoesNotFindUnknownName) {
  // A machine without a name server says "try again" instead.
  const ResolvedHost resolved = Resolve(L"no-such-host.invalid");
  EXPECT_THAT(resolved.m_addresses, IsEmpty());
  EXPECT_THAT(resolved.m_error.Number(), AnyOf(11001, 11002, 11003));
}

TEST(ResolveHost, RefusesEmptyName) { EXPECT_EQ(Resolve(L"").m_error.Number(), 10022); }

TEST(ResolveHost, RefusesNameWithZero) {
  EXPECT_EQ(Resolve(std::wstring(L"127.0.0.1\0x", 11)).m_error.Number(), 10022);
}

TEST(ResolveHost, RefusesPortZero) { EXPECT_EQ(Resolve(L"127.0.0.1", 0).m_error.Number(), 10022); }

TEST(ResolveHost, RefusesPort65536) { EXPECT_EQ(Resolve(L"127.0.0.1", 65536).m_error.Number(), 10022); }

TEST(ResolveHost, TakesPort65535) {
  const ResolvedHost resolved = Resolve(L"127.0.0.1", 65535);
  ASSERT_THAT(resolved.m_addresses, SizeIs(1));
  EXPECT_EQ(resolved.m_addresses[0].get_port_number(), 65535);
}

}  // namespace
