// A connection of the TLS destination socket that is cut in the middle of a batch, or ends without room.
#include "Transports.h"

#include "platform/NameResolver.h"
#include "sockets/TlsStream.h"

#include <support/RecordingLogger.h>

#include <ace/SSL/SSL_Context.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>
#include <thread>

namespace sorvex::test {
namespace {

/// Makes the system keep as little as it can, so that the receiver reads in the batch that is being written. Called
/// once a connection stands.
VaroCommunicationAPI::SocketError KeepLittle(ACE_HANDLE handle, std::uint32_t, std::uint32_t) {
  const int bytes = 4096;
  EXPECT_EQ(ACE_OS::setsockopt(handle, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char*>(&bytes), sizeof bytes), 0);
  return {};
}

TEST(TlsDestinationCut, NoPayloadThatTheReceiverHasReadArrivesAgain) {
  constexpr int payloads = 2000;
  constexpr int cuts = 4;
  constexpr std::size_t lineBytes = 256;
  LoopbackTlsServer server(
      [&](LoopbackTlsServer& self, TlsServerSession& session, int index) {
        if (index >= cuts) return self.KeepAllOf(session);
        self.AddReceived(session.ReadExactly(65 * lineBytes));
        session.Reset();
      },
      TlsServerOptions{.receiveBufferBytes = 4096});
  RecordingLogger log;
  DefaultSSLTCPSocket socket({.m_setKeepAlive = &KeepLittle});
  WindowsAgentCommon::ParameterBlock parameters = OverTls::Target(server.Port(), true);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  socket.Initialize(parameters);
  for (int i = 0; i < payloads; ++i) {
    std::string payload = std::to_string(i) + ' ';
    payload.resize(lineBytes - 1, 'x');
    ASSERT_EQ(socket.Send(payload.data(), static_cast<std::uint32_t>(payload.size())),
              static_cast<std::int32_t>(lineBytes));
  }
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), static_cast<std::uint32_t>(payloads));
  const std::string last = '\n' + std::to_string(payloads - 1);
  ASSERT_TRUE(WaitUntil([&] { return server.Received().find(last) != std::string::npos; }));

  EXPECT_EQ(server.Connections(), cuts + 1);
  std::istringstream lines(server.Received());
  int previous = -1;
  int arrivedAgain = 0;
  for (std::string line; std::getline(lines, line);) {
    const int number = std::stoi(line);
    if (number <= previous) ++arrivedAgain;
    previous = number;
  }
  EXPECT_EQ(arrivedAgain, 0);
}

TEST(TlsDestinationEnd, APeerThatTalksIsListenedToWhileThereIsNoRoomForTheFarewell) {
  using namespace VaroCommunicationAPI;
  std::atomic<bool> isTold{false};
  LoopbackTlsServer server(
      [&](LoopbackTlsServer&, TlsServerSession& session, int) {
        // More than any system buffers.
        session.Write(std::string(40'000'000, '?'));
        isTold = true;
      },
      TlsServerOptions{.receiveBufferBytes = 4096});
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  SSLProtocolList().applyTo(context);
  TlsStream stream(context, StreamUse::Delivery);
  const auto goOn = [] { return false; };
  ASSERT_EQ(
      stream.Connect(Platform::ResolveHost(L"127.0.0.1", server.Port(), Platform::AddressFamily::Any, goOn).m_addresses,
                     L"127.0.0.1", goOn),
      Platform::ErrorNone);
  // The peer reads nothing before it has said everything, so that these bytes only take all the room.
  const std::string filling(65536, 'x');
  for (int fullTimes = 0; fullTimes < 5;) {
    if (!Platform::SendNow(stream.Handle(), filling.data(), filling.size()).m_error) continue;
    ++fullTimes;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto end = std::chrono::steady_clock::now() + patience;
  stream.Finish([&] { return isTold || std::chrono::steady_clock::now() > end; });
  EXPECT_TRUE(isTold);
}

}  // namespace
}  // namespace sorvex::test
