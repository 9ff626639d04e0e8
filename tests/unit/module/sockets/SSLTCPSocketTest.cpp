// What the TLS destination socket alone does, against real peers on the loopback.
#include "ScriptedStreamSocket.h"
#include "StreamSocketFixture.h"
#include "platform/SocketErrors.h"

#include <host/Exceptions.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
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

class TLSDestination : public StreamSocketFixture<OverTls> {
 protected:
  std::string Refusal() const {
    return WindowsAgentCommon::Format("Error Cannot connect to server (%d)", socket.GetLastResultCode());
  }
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
  EXPECT_EQ(server.Connections(), 0);
}

TEST_F(TLSDestination, AnOpenSocketWithoutCertificateIsOpenNoLonger) {
  LoopbackTlsServer server;
  socket.Initialize(OverTls::Target(server.Port(), false));
  ASSERT_TRUE(socket.IsOpen());
  EXPECT_THROW(socket.Initialize({}), WindowsAgentCommon::InitializationException);
  EXPECT_FALSE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(Send("x"), -1);
  EXPECT_EQ(socket.GetMessagesSubmitted(), 0u);
}

TEST_F(TLSDestination, AReceiverIsTakenWhateverCertificateItShows) {
  const TlsIdentity expired("expired", nullptr, -3600);
  LoopbackTlsServer server(TlsServerOptions{.identity = &expired});
  socket.Initialize(OverTls::Target(server.Port(), false));
  EXPECT_TRUE(socket.IsConnected());
}

TEST_F(TLSDestination, AReceiverThatAsksForACertificateIsServedAndShownNone) {
  std::atomic<bool> isShown{false};
  LoopbackTlsServer server(
      [&](LoopbackTlsServer& self, TlsServerSession& session, int) {
        isShown = SSL_get0_peer_certificate(session.Native()) != nullptr;
        self.KeepAllOf(session);
      },
      TlsServerOptions{.requestsCertificate = true});
  socket.Initialize(OverTls::Target(server.Port(), false));
  ASSERT_TRUE(socket.IsConnected());
  Send("one");
  EXPECT_EQ(server.WaitForBytes(4), "one\n");
  EXPECT_FALSE(isShown);
}

TEST_F(TLSDestination, AReceiverThatInsistsOnACertificateRefuses) {
  LoopbackTlsServer server(TlsServerOptions{.requiresCertificate = true});
  socket.Initialize(OverTls::Target(server.Port(), false));
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(Refusal(), "Debug The TLS library's reason: sslv3 alert handshake failure"));
  EXPECT_TRUE(WaitUntil([&] { return server.FailedHandshakes() == 1; }));
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
  socket.Initialize(OverTls::Target(server.Port(), false, GetParam().text));
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_NE(socket.GetLastConnectAttemptTime(), ACE_Time_Value::zero);
  EXPECT_THAT(log->Lines(), ElementsAre("Warn Failed to parse certificate.  No connection attempt will be made."));
  EXPECT_FALSE(socket.Connect());
  EXPECT_EQ(server.Connections(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TLSDestinationCertificate,
    testing::Values(CertificateText{"LineBreaks", WithLineBreaks(OverTls::Certificate())},
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
  SSLTCPSocket socket(SSLProtocolList(), {.m_pTime = time});
  LoopbackTlsServer server;
  socket.Initialize(OverTls::Target(server.Port(), false, ToBase64("nothing")));
  const std::string warning = "Warn Failed to parse certificate.  No connection attempt will be made.";
  EXPECT_EQ(log->Count(warning), 1u);
  // Each send without connection pauses one second of this clock.
  for (int second = 0; second < 46; ++second) EXPECT_EQ(socket.Send("x", 1), -1);
  EXPECT_EQ(log->Count(warning), 5u);  // the first send's, and those after 15, 30 and 45 seconds
  EXPECT_EQ(server.Connections(), 0);
}

TEST(TLSDestinationClock, ABadCertificateLeavesResultCodeAndFailureTimeAlone) {
  RecordingLogger log;
  const auto time = std::make_shared<FakeSocketTime>();
  SSLTCPSocket socket(SSLProtocolList(), {.m_pTime = time});
  const std::uint16_t port = UnusedPort();
  socket.Initialize(OverTls::Target(port, false));
  ASSERT_EQ(socket.GetLastResultCode(), 10061);
  const ACE_Time_Value failure = socket.GetLastConnectFailureTime();
  time->Advance(10s);
  socket.Initialize(OverTls::Target(port, false, ToBase64("nothing")));
  EXPECT_EQ(socket.GetLastResultCode(), 10061);
  EXPECT_EQ(socket.GetLastConnectFailureTime(), failure);
  EXPECT_GT(socket.GetLastConnectAttemptTime(), failure);
}

TEST_F(TLSDestination, AServerOfAnotherVersionIsRefusedWithReason) {
  LoopbackTlsServer server(TlsServerOptions{.minVersion = TLS1_3_VERSION});
  socket.Initialize(OverTls::Target(server.Port(), false));
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
  ranged.Initialize(OverTls::Target(server.Port(), false));
  EXPECT_TRUE(ranged.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(StartsWith("Debug Connected to server using TLSv1.1 (cipher: ")));

  LoopbackTlsServer newer(TlsServerOptions{.minVersion = TLS1_2_VERSION});
  SSLTCPSocket refused(range);
  refused.Initialize(OverTls::Target(newer.Port(), false));
  EXPECT_FALSE(refused.IsConnected());
}

TEST_F(TLSDestination, AServerThatNeverAnswersTheHandshakeIsLeftAfterTheLimit) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  SSLTCPSocket hasty(SSLProtocolList(), {}, 300ms);
  const auto start = std::chrono::steady_clock::now();
  hasty.Initialize(OverTls::Target(silent.Port(), false));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 290ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(hasty.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Cannot connect to server (137)"));
}

TEST_F(TLSDestination, ShutdownInterruptsTheHandshake) {
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  std::thread opener([&] { socket.Initialize(OverTls::Target(silent.Port(), true)); });
  ASSERT_TRUE(WaitUntil([&] { return silent.Connections() == 1; }));
  ShutdownWithinTwoSeconds();
  opener.join();
  EXPECT_FALSE(socket.IsOpen());
}

TEST_F(TLSDestination, ShutdownInterruptsTheHandshakeOfAReconnect) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int index) {
    if (index > 0) self.HoldUntilStopped();
    connection.Close();
  });
  socket.Initialize(OverTls::Target(server.Port(), true));
  ASSERT_FALSE(socket.IsConnected());
  ASSERT_EQ(Send("hello"), 6);
  ASSERT_TRUE(WaitUntil([&] { return server.Connections() == 2; }));
  ShutdownWithinTwoSeconds();
  EXPECT_EQ(socket.GetMessagesDropped(), 1u);
  EXPECT_EQ(log->Count("Info Thread exiting"), 1u);
}

TEST_F(TLSDestination, APeerThatSaysFarewellIsReconnectedWithoutLosingAPayload) {
  std::atomic<bool> isClosing{false};
  LoopbackTlsServer server([&](LoopbackTlsServer& self, TlsServerSession& session, int index) {
    if (index > 0) return self.KeepAllOf(session);
    self.AddReceived(session.ReadExactly(4));
    isClosing = true;
    session.CloseNotify();
  });
  SendOneAndTwo(server, isClosing);
  EXPECT_EQ(server.Handshakes(), 2);
  EXPECT_THAT(log->Lines(), Contains("Warn Socket connection problem (error = '" + ErrorPeerClosed.Text() +
                                     "'). Trying to reconnect..."));
}

TEST_F(TLSDestination, APeerThatResetsWhileABlockingSendWritesEndsNoProcess) {
  LoopbackTlsServer server([](LoopbackTlsServer&, TlsServerSession& session, int) { session.Reset(); });
  socket.Initialize(OverTls::Target(server.Port(), false));
  const std::string payload(20000, 'x');
  // The first may still be taken, the second meets the reset, and whatever follows a connection that is gone.
  EXPECT_TRUE(WaitUntil([&] { return Send(payload) == -1; }));
  EXPECT_THAT(log->Lines(), Contains(StartsWith("Warn Socket connection problem (error = '")));
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
  WindowsAgentCommon::ParameterBlock parameters = OverTls::Target(server.Port(), true);
  parameters.emplace("Socket.QueueHighWaterMark", "100000000");
  socket.Initialize(parameters);
  const std::string payload(255, 'x');
  for (std::size_t i = 0; i < payloads; ++i) ASSERT_EQ(Send(payload), 256);
  isReading = true;
  EXPECT_EQ(socket.Shutdown(), 0);
  EXPECT_EQ(server.WaitForBytes(payloads * 256).size(), payloads * 256);
  EXPECT_GE(server.RecordBytes() / server.Records(), 8192u);
}

}  // namespace
}  // namespace sorvex::test
