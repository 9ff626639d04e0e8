// The TLS destination socket against real peers on the loopback.
#include "ScriptedStreamSocket.h"
#include "platform/SocketErrors.h"
#include "sockets/SSLTCPSocket.h"

#include <support/LoopbackTlsServer.h>
#include <support/RecordingLogger.h>

#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using namespace VaroCommunicationAPI::Platform;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPSocket;

/// What the sockets of these tests show.
const std::string& Certificate() {
  static const std::string text = ToBase64(ServerIdentity().CertificatePem());
  return text;
}

WindowsAgentCommon::ParameterBlock Target(std::uint16_t port, bool isQueued,
                                          const std::string& certificate = Certificate()) {
  return {{"TargetPort", std::to_string(port)},
          {"Socket.BlockingSendStrategy", isQueued ? "false" : "true"},
          {"Certificate", certificate}};
}

/// A connection on which nothing was written for more than a second is looked at before it is written to.
constexpr auto moreThanTrustedSilence = 1050ms;

const auto connectedLine = StartsWith("Debug Connected to server using TLSv1.2 (cipher: ");

class TLSDestination : public testing::Test {
 protected:
  ~TLSDestination() override { socket.Shutdown(); }

  std::int32_t Send(const std::string& text) {
    return socket.Send(text.data(), static_cast<std::uint32_t>(text.size()));
  }
  std::string Refusal() const {
    return WindowsAgentCommon::Format("Error Cannot connect to server (%d)", socket.GetLastResultCode());
  }

  RecordingLogger log;
  SSLTCPSocket socket{SSLProtocolList()};
};

TEST_F(TLSDestination, WithoutCertificateIsNotInitialised) {
  LoopbackTlsServer server;
  try {
    socket.Initialize({{"TargetPort", std::to_string(server.Port())}});
    FAIL() << "nothing was thrown";
  } catch (const WindowsAgentCommon::InitializationException& exception) {
    EXPECT_EQ(exception.GetMessageText(), "Cannot create TLS socket because no certificate was specified");
    EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::SSLTCPSocket::Open");
    EXPECT_EQ(exception.GetSourceFile(), "SSLTCPSocket");
  }
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
  EXPECT_EQ(server.Tcp().Connections(), 0);
}

TEST_F(TLSDestination, DeliversPayloadsInOrder) {
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), false));
  ASSERT_TRUE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 0);
  EXPECT_EQ(Send("one"), 4);
  EXPECT_EQ(Send("two"), 4);
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(socket.GetBytesSent(), 8u);
  EXPECT_THAT(log->Lines(), ElementsAre(connectedLine));
}

TEST_F(TLSDestination, DeliversQueuedPayloadsInOrder) {
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), true));
  std::string expected;
  for (int i = 0; i < 20000; ++i) {
    const std::string payload = "payload " + std::to_string(i);
    ASSERT_EQ(Send(payload), static_cast<std::int32_t>(payload.size() + 1));
    expected += payload + '\n';
  }
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(expected.size()), expected);
  EXPECT_EQ(socket.GetMessagesSent(), 20000u);
}

TEST_F(TLSDestination, LoggerIsNamedAfterObjectHostAndPort) {
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), true));
  socket.Shutdown();
  for (const LogRecord& record : log->Records()) {
    EXPECT_EQ(record.logger, WindowsAgentCommon::Format("Code.SSLTCPSocket_%p.127.0.0.1.%d",
                                                        static_cast<const void*>(&socket), server.Port()));
  }
  EXPECT_THAT(log->Lines(), ElementsAre(connectedLine, "Info Thread running...", "Info Thread exiting"));
}

TEST_F(TLSDestination, ReceiveThrows) {
  char byte = 0;
  try {
    socket.Receive(&byte, 1, 0);
    FAIL() << "nothing was thrown";
  } catch (const WindowsAgentCommon::OperationNotSupportedException& exception) {
    EXPECT_EQ(exception.GetFunction(), "VaroCommunicationAPI::SSLTCPSocket::Receive");
    EXPECT_EQ(exception.GetSourceFile(), "SSLTCPSocket");
  }
}

TEST_F(TLSDestination, AReceiverIsTakenWhateverCertificateItShows) {
  const TlsIdentity expired("expired", nullptr, -3600);
  LoopbackTlsServer server(TlsServerOptions{.identity = &expired});
  socket.Initialize(Target(server.Port(), false));
  EXPECT_TRUE(socket.IsConnected());
}

TEST_F(TLSDestination, AReceiverThatAsksForACertificateIsServed) {
  LoopbackTlsServer server(TlsServerOptions{.requestsCertificate = true});
  socket.Initialize(Target(server.Port(), false));
  ASSERT_TRUE(socket.IsConnected());
  Send("one");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
}

struct CertificateText {
  const char* name;
  std::string text;
};

void PrintTo(const CertificateText& text, std::ostream* out) { *out << text.name; }

std::string WithLineBreaks(const std::string& text) {
  std::string broken;
  for (std::size_t i = 0; i < text.size(); i += 64) broken += text.substr(i, 64) + '\n';
  return broken;
}

std::string WithoutPadding(std::string pem) {
  // White space behind the certificate does no harm and makes the text need padding.
  while (ToBase64(pem).back() != '=') pem += '\n';
  std::string text = ToBase64(pem);
  while (text.back() == '=') text.pop_back();
  return text;
}

class TLSDestinationCertificate : public TLSDestination, public testing::WithParamInterface<CertificateText> {};

TEST_P(TLSDestinationCertificate, ThatIsNoneIsWarnedOfAndNotConnectedWith) {
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), false, GetParam().text));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_NE(socket.GetLastConnectAttemptTime(), ACE_Time_Value::zero);
  EXPECT_THAT(log->Lines(), ElementsAre("Warn Failed to parse certificate.  No connection attempt will be made."));
  EXPECT_FALSE(socket.Connect());
  EXPECT_EQ(server.Tcp().Connections(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TLSDestinationCertificate,
    testing::Values(CertificateText{"LineBreaks", WithLineBreaks(Certificate())},
                    CertificateText{"MissingPadding", WithoutPadding(ServerIdentity().CertificatePem())},
                    CertificateText{"Der", ToBase64(ServerIdentity().CertificateDer())},
                    CertificateText{"EmptyPem", ToBase64("\n")},
                    CertificateText{"PemWithoutContent",
                                    ToBase64("-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n")},
                    CertificateText{"Key", ToBase64(ServerIdentity().KeyPem())},
                    CertificateText{"CutPem", ToBase64(ServerIdentity().CertificatePem().substr(0, 400))},
                    CertificateText{"Encrypted", ToBase64("-----BEGIN CERTIFICATE-----\nProc-Type: 4,ENCRYPTED\n"
                                                          "DEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n\n"
                                                          "AAAA\n-----END CERTIFICATE-----\n")},
                    CertificateText{"PlainPem", ServerIdentity().CertificatePem()}, CertificateText{"Blanks", "   "},
                    CertificateText{"OtherBytes", ToBase64("no certificate")}),
    [](const testing::TestParamInfo<CertificateText>& test) { return test.param.name; });

TEST(TLSDestinationClock, TheWarningOfABadCertificateRecursEveryFifteenSeconds) {
  RecordingLogger log;
  const auto time = std::make_shared<FakeSocketTime>();
  SSLTCPSocket socket(SSLProtocolList(), time);
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), false, ToBase64("nothing")));
  const std::string warning = "Warn Failed to parse certificate.  No connection attempt will be made.";
  EXPECT_EQ(log->Count(warning), 1u);
  // Each send without connection pauses one second of this clock.
  for (int second = 0; second < 46; ++second) EXPECT_EQ(socket.Send("x", 1), -1);
  EXPECT_EQ(log->Count(warning), 5u);  // the first send's, and those after 15, 30 and 45 seconds
  EXPECT_THAT(log->Lines(), Contains("Warn Reconnect failed; will try again later. Reason: " +
                                     SocketErrorText(ErrorInvalidArgument)));
  EXPECT_EQ(server.Tcp().Connections(), 0);
}

TEST_F(TLSDestination, ARefusedConnectionIsAnErrorAndNotTheWarning) {
  socket.Initialize(Target(UnusedPort(), false));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_EQ(socket.GetLastConnectFailureTime(), socket.GetLastConnectAttemptTime());
  EXPECT_THAT(log->Lines(), ElementsAre("Error Cannot connect to server (10061)"));
}

TEST_F(TLSDestination, AReconnectThatIsRefusedTellsTheReason) {
  socket.Initialize(Target(UnusedPort(), false));
  log->Clear();
  EXPECT_EQ(Send("x"), -1);
  EXPECT_THAT(
      log->Lines(),
      ElementsAre("Debug Socket isn't connected; calling reconnect...", "Error Cannot connect to server (10061)",
                  "Warn Reconnect failed; will try again later. Reason: " + SocketErrorText(10061)));
}

TEST_F(TLSDestination, AServerOfAnotherVersionIsRefusedWithReason) {
  LoopbackTlsServer server(TlsServerOptions{.minVersion = TLS1_3_VERSION});
  socket.Initialize(Target(server.Port(), false));
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(Refusal(), "Debug The TLS library's reason: tlsv1 alert protocol version"));
  log->Clear();
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(log->Lines().back(), "Warn Reconnect failed; will try again later. Reason: tlsv1 alert protocol version");
}

TEST_F(TLSDestination, TheVersionLiesWithinTheRange) {
  SSLProtocolList range;
  ASSERT_TRUE(range.setRange("TLSv1.1", "TLSv1.1", WindowsAgentCommon::Log()));
  SSLTCPSocket ranged(range);
  LoopbackTlsServer server;
  ranged.Initialize(Target(server.Port(), false));
  EXPECT_TRUE(ranged.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(StartsWith("Debug Connected to server using TLSv1.1 (cipher: ")));

  LoopbackTlsServer newer(TlsServerOptions{.minVersion = TLS1_2_VERSION});
  SSLTCPSocket refused(range);
  refused.Initialize(Target(newer.Port(), false));
  EXPECT_FALSE(refused.IsConnected());
}

TEST_F(TLSDestination, AServerThatNeverAnswersTheHandshakeIsLeftAfterTheLimit) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  SSLTCPSocket hasty(SSLProtocolList(), VaroCommunicationAPI::ISocketTime::System(), 300ms);
  const auto start = std::chrono::steady_clock::now();
  hasty.Initialize(Target(silent.Port(), false));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 290ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(hasty.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Cannot connect to server (137)"));
}

TEST_F(TLSDestination, ShutdownInterruptsTheHandshake) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  std::thread opener([&] { socket.Initialize(Target(silent.Port(), true)); });
  ASSERT_TRUE(WaitUntil([&] { return silent.Connections() == 1; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  opener.join();
  EXPECT_FALSE(socket.IsOpen());
}

TEST_F(TLSDestination, ShutdownInterruptsTheHandshakeOfAReconnect) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index > 0) self.HoldUntilStopped();
    connection.Close();
  });
  socket.Initialize(Target(server.Port(), true));
  ASSERT_FALSE(socket.IsConnected());
  ASSERT_EQ(Send("hello"), 6);
  ASSERT_TRUE(WaitUntil([&] { return server.Connections() == 2; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(TLSDestination, APeerThatSaysFarewellIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosing{false};
  LoopbackTlsServer server([&](LoopbackTlsServer& self, TlsServerSession& session, int index) {
    if (index > 0) return self.KeepAllOf(session);
    self.Tcp().AddReceived(session.ReadExactly(4));
    isClosing = true;
    session.CloseNotify();
  });
  socket.Initialize(Target(server.Port(), true));
  Send("one");
  ASSERT_EQ(server.WaitForBytes(4), "one\n");
  ASSERT_TRUE(WaitUntil([&] { return isClosing.load(); }));
  std::this_thread::sleep_for(moreThanTrustedSilence);
  Send("two");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(server.Handshakes(), 2);
  EXPECT_THAT(log->Lines(), Contains("Warn Socket connection problem (error = '" + SocketErrorText(ErrorPeerClosed) +
                                     "'). Trying to reconnect..."));
}

TEST_F(TLSDestination, APeerThatClosesWithoutFarewellIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosed{false};
  LoopbackTlsServer server([&](LoopbackTlsServer& self, TlsServerSession& session, int index) {
    if (index > 0) return self.KeepAllOf(session);
    self.Tcp().AddReceived(session.ReadExactly(4));
    session.Connection().Close();
    isClosed = true;
  });
  socket.Initialize(Target(server.Port(), true));
  Send("one");
  ASSERT_EQ(server.WaitForBytes(4), "one\n");
  ASSERT_TRUE(WaitUntil([&] { return isClosed.load(); }));
  std::this_thread::sleep_for(moreThanTrustedSilence);
  Send("two");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
}

TEST_F(TLSDestination, APeerThatTalksIsListenedToForItsEndAlone) {
  LoopbackTlsServer server([&](LoopbackTlsServer& self, TlsServerSession& session, int) {
    session.Write(std::string(10000, '?'));
    self.KeepAllOf(session);
  });
  socket.Initialize(Target(server.Port(), true));
  Send("one");
  ASSERT_EQ(server.WaitForBytes(4), "one\n");
  std::this_thread::sleep_for(moreThanTrustedSilence);
  Send("two");
  EXPECT_EQ(server.WaitForBytes(8), "one\ntwo\n");
  EXPECT_EQ(server.Handshakes(), 1);
}

TEST_F(TLSDestination, APeerThatResetsWhileWeWriteEndsNoProcess) {
  LoopbackTlsServer server([](LoopbackTlsServer& self, TlsServerSession& session, int index) {
    if (index > 0) return self.KeepAllOf(session);
    session.ReadExactly(1);
    session.Connection().Reset();
  });
  socket.Initialize(Target(server.Port(), true));
  const std::string payload(20000, 'x');
  for (int i = 0; i < 300; ++i) Send(payload);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 300u);
  EXPECT_EQ(socket.GetMessagesSent() + socket.GetMessagesDropped(), 300u);
  EXPECT_EQ(server.Tcp().Connections(), 2);
}

TEST_F(TLSDestination, APeerThatResetsWhileABlockingSendWritesEndsNoProcess) {
  LoopbackTlsServer server([](LoopbackTlsServer&, TlsServerSession& session, int) { session.Connection().Reset(); });
  socket.Initialize(Target(server.Port(), false));
  const std::string payload(20000, 'x');
  // The first may still be taken, the second meets the reset, and whatever follows a connection that is gone.
  EXPECT_TRUE(WaitUntil([&] { return Send(payload) == -1; }));
  EXPECT_THAT(log->Lines(), Contains(StartsWith("Warn Socket connection problem (error = '")));
}

TEST_F(TLSDestination, ShutdownGivesUpADestinationThatNeverReadsWithinTwoSeconds) {
  LoopbackTlsServer server([](LoopbackTlsServer& self, TlsServerSession&, int) { self.HoldUntilStopped(); },
                           TlsServerOptions{.receiveBufferBytes = 4096});
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  socket.Initialize(parameters);
  const std::string payload(30000, 'x');
  for (int i = 0; i < 1000; ++i) ASSERT_GT(Send(payload), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_GT(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(socket.GetMessagesSent() + socket.GetMessagesDropped(), 1000u);
  EXPECT_THAT(log->Lines(), Contains("Info Thread exiting"));
}

TEST_F(TLSDestination, ShutdownWaitsForASlowReceiverThatTakesData) {
  LoopbackTlsServer server(
      [](LoopbackTlsServer& self, TlsServerSession& session, int) {
        std::string part;
        while (session.ReadSome(part, 200000)) {
          self.Tcp().AddReceived(part);
          part.clear();
          std::this_thread::sleep_for(2ms);
        }
      },
      TlsServerOptions{.receiveBufferBytes = 65536});
  socket.Initialize(Target(server.Port(), true));
  const std::string payload(30000, 'x');
  for (int i = 0; i < 200; ++i) ASSERT_GT(Send(payload), 0);
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(socket.GetMessagesSent(), 200u);
  EXPECT_EQ(socket.GetMessagesDropped(), 0u);
  EXPECT_EQ(server.WaitForBytes(200u * 30001u).size(), 200u * 30001u);
}

TEST_F(TLSDestination, RecordsAreLongUnderLoad) {
  constexpr std::size_t payloads = 100'000;
  std::atomic<bool> isReading{false};
  LoopbackTlsServer server(
      [&](LoopbackTlsServer& self, TlsServerSession& session, int) {
        while (!isReading && !self.Tcp().IsStopped()) std::this_thread::sleep_for(1ms);
        self.KeepAllOf(session);
      },
      TlsServerOptions{.receiveBufferBytes = 65536});
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  socket.Initialize(parameters);
  const std::string payload(255, 'x');
  for (std::size_t i = 0; i < payloads; ++i) ASSERT_EQ(Send(payload), 256);
  isReading = true;
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(payloads * 256).size(), payloads * 256);
  EXPECT_GE(server.RecordBytes() / server.Records(), 8192u);
}

TEST_F(TLSDestination, KeepAliveIsSetOnTheConnection) {
  LoopbackTlsServer server;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  socket.Initialize(parameters);
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(connectedLine));
}

/// A TLS socket whose system refuses keep-alive.
class SSLTCPSocketWithoutKeepAlive : public SSLTCPSocket {
 public:
  SSLTCPSocketWithoutKeepAlive() : SSLTCPSocket(SSLProtocolList()) {}

 protected:
  int SetStreamKeepAlive(std::uint32_t, std::uint32_t) override { return ToSystemError(10042); }
};

TEST_F(TLSDestination, KeepAliveThatCannotBeSetIsWarnedOf) {
  LoopbackTlsServer server;
  SSLTCPSocketWithoutKeepAlive destination;
  WindowsAgentCommon::ParameterBlock parameters = Target(server.Port(), false);
  parameters.emplace("Socket.KeepAlive.Enabled", "true");
  destination.Initialize(parameters);
  EXPECT_TRUE(destination.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(connectedLine,
                                        "Warn Failed to set keepalive options on the SSLTCP syslog connection; the "
                                        "default OS options will remain in place. Reason: " +
                                            SocketErrorText(10042)));
}

TEST_F(TLSDestination, TheLimitCutsQueuedPayloadsOnly) {
  LoopbackTlsServer server;
  socket.Initialize(Target(server.Port(), false));
  const std::string payload(40000, 'x');
  EXPECT_EQ(Send(payload), 32001);
  EXPECT_EQ(server.WaitForBytes(40001).size(), 40001u);
  EXPECT_EQ(socket.GetMessagesTruncated(), 1u);
  EXPECT_EQ(socket.GetBytesTruncated(), 8000u);

  SSLTCPSocket queued{SSLProtocolList()};
  queued.Initialize(Target(server.Port(), true));
  EXPECT_EQ(queued.Send(payload.data(), 40000), 32001);
  EXPECT_EQ(queued.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(72002).size(), 72002u);
}

/// A socket whose target's name has one address only, of version 6.
class SSLTCPSocketToIPv6Name : public SSLTCPSocket {
 public:
  SSLTCPSocketToIPv6Name() : SSLTCPSocket(SSLProtocolList()) {}

 protected:
  ResolvedHost ResolveTarget() override {
    ResolvedHost target;
    target.m_addresses.emplace_back(static_cast<u_short>(m_port), "::1", AF_INET6);
    return target;
  }
};

TEST_F(TLSDestination, ConnectsToAnIPv6Address) {
  std::optional<LoopbackTlsServer> server;
  try {
    server.emplace(TlsServerOptions{.isIPv6 = true});
  } catch (const boost::system::system_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  WindowsAgentCommon::ParameterBlock parameters = Target(server->Port(), false);
  SSLTCPSocketToIPv6Name named;
  named.Initialize(parameters);
  EXPECT_TRUE(named.IsConnected());
  parameters.emplace("TargetAddress", "::1");
  socket.Initialize(parameters);
  ASSERT_TRUE(socket.IsConnected());
  Send("one");
  EXPECT_EQ(server->WaitForBytes(4), "one\n");
}

}  // namespace
}  // namespace sorvex::test
