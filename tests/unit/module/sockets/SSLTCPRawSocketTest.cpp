// What the raw TLS socket alone does, against real peers on the loopback.
#include "sockets/SSLTCPRawSocket.h"

#include <support/ConnectionHandles.h>
#include <support/LoopbackTlsServer.h>
#include <support/RecordingLogger.h>
#include <support/TemporaryDirectory.h>

#include <SorvexHost/Directories.h>
#include <host/Paths.h>
#include <host/Text.h>

#include <ace/ACE.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/SSL/SSL_Context.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>

#include <atomic>
#include <thread>

namespace sorvex::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using VaroCommunicationAPI::SSLProtocolList;
using VaroCommunicationAPI::SSLTCPRawSocket;

SSLProtocolList Protocols(const std::string& min, const std::string& max) {
  SSLProtocolList list;
  EXPECT_TRUE(list.setRange(min, max, WindowsAgentCommon::Log()));
  return list;
}

std::string Failure(const SSLTCPRawSocket& socket) {
  return WindowsAgentCommon::Format("Error Cannot connect to server (%d)", socket.GetLastResultCode());
}

class RawTLS : public testing::Test {
 protected:
  RawTLS() { Trust(ServerIdentity()); }

  void Trust(const TlsIdentity& identity) { Use(socket, identity.CertificatePem()); }

  void Use(SSLTCPRawSocket& target, const std::string& pem) {
    target.SetCertificateFile(WindowsAgentCommon::PathToWide(directory.Write("trusted.pem", pem)));
  }

  TemporaryDirectory directory{"raw-tls"};
  RecordingLogger log;
  SSLTCPRawSocket socket{SSLProtocolList()};
};

TEST_F(RawTLS, TrustsTheFileInTheConfigurationDirectoryUnlessToldOtherwise) {
  const std::wstring before = WindowsAgentCommon::GetConfigPath();
  WindowsAgentCommon::SetConfigPath(WindowsAgentCommon::PathToWide(directory.Path()));
  directory.Write("ConfigurationServer.PEM", ServerIdentity().CertificatePem());
  LoopbackTlsServer server;
  SSLTCPRawSocket fresh{SSLProtocolList()};
  WindowsAgentCommon::SetConfigPath(before);
  fresh.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(fresh.IsConnected());
}

TEST_F(RawTLS, AnotherCertificateFileCountsFromTheNextConnect) {
  const TlsIdentity stranger("stranger");
  Trust(stranger);
  LoopbackTlsServer server;
  socket.Open(L"127.0.0.1", server.Port());
  ASSERT_FALSE(socket.IsConnected());
  Trust(ServerIdentity());
  EXPECT_TRUE(socket.Connect());
}

TEST_F(RawTLS, TakesACertificateFileWhosePathIsNotAscii) {
  LoopbackTlsServer server;
  const std::filesystem::path file = directory.Path() / WindowsAgentCommon::WideToPath(L"Zertifikat-\u00FC-\u65E5.pem");
  std::filesystem::copy_file(directory.Write("plain.pem", ServerIdentity().CertificatePem()), file);
  socket.SetCertificateFile(WindowsAgentCommon::PathToWide(file));
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(socket.IsConnected());
}

TEST_F(RawTLS, AServerWhoseCertificateIsNotInTheFileIsRefusedWithReason) {
  Trust(TlsIdentity("stranger"));
  LoopbackTlsServer server;
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(socket.IsOpen());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_NE(socket.GetLastResultCode(), 0);
  EXPECT_THAT(log->Lines(), ElementsAre(Failure(socket),
                                        "Debug The TLS library's reason: certificate verify failed (self-signed "
                                        "certificate)"));
}

TEST_F(RawTLS, AnExpiredCertificateIsRefusedWithReason) {
  const TlsIdentity expired("expired", nullptr, -3600);
  Trust(expired);
  LoopbackTlsServer server(TlsServerOptions{.identity = &expired});
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), Contains(HasSubstr("certificate has expired")));
}

TEST_F(RawTLS, ACertificateIssuedByTheTrustedOneIsTaken) {
  const TlsIdentity authority("authority");
  const TlsIdentity issued("issued", &authority);
  Trust(authority);
  LoopbackTlsServer server(TlsServerOptions{.identity = &issued});
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(socket.IsConnected());
}

TEST_F(RawTLS, ALongChainToATrustedRootIsTaken) {
  const TlsIdentity root("root");
  const TlsIdentity first("first", &root, 3600, true);
  const TlsIdentity second("second", &first, 3600, true);
  const TlsIdentity third("third", &second, 3600, true);
  const TlsIdentity leaf("leaf", &third);
  Use(socket, root.CertificatePem() + first.CertificatePem() + second.CertificatePem() + third.CertificatePem());
  LoopbackTlsServer server(TlsServerOptions{.identity = &leaf});
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_TRUE(socket.IsConnected());
}

TEST_F(RawTLS, ErrorsThatOthersLeftInTheThreadAreNotTakenForItsOwn) {
  const auto leaveError = [] { ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR); };
  std::atomic<bool> isReading{false};
  LoopbackTlsServer server(
      [&](LoopbackTlsServer& self, TlsServerSession& session, int) {
        WaitUntil([&] { return isReading.load(); });
        self.KeepAllOf(session);
      },
      TlsServerOptions{.receiveBufferBytes = 65536});
  leaveError();
  socket.Open(L"127.0.0.1", server.Port());
  ASSERT_TRUE(socket.IsConnected());

  char byte = 0;
  leaveError();
  EXPECT_EQ(socket.Receive(&byte, 1, 0), -1);
  EXPECT_EQ(socket.GetLastResultCode(), 137);

  // More than the system takes: the writing has to wait.
  const std::string block(8'000'000, 'x');
  const std::vector<ACE_HANDLE> handles = HandlesConnectedTo(server.Port());
  ASSERT_EQ(handles.size(), 1u);
  std::thread reader([&] {
    EXPECT_TRUE(WaitUntil([&] { return ACE::handle_write_ready(handles.front(), &ACE_Time_Value::zero) == -1; }));
    isReading = true;
  });
  leaveError();
  EXPECT_EQ(socket.Send(block.data(), 8'000'000), 8'000'000);
  reader.join();
  ERR_clear_error();
  // Of a record that was cut short the server would wait for the rest.
  socket.Close();
}

TEST_F(RawTLS, WithoutItsFileTheDefaultLocationsAreTrusted) {
  socket.SetCertificateFile(WindowsAgentCommon::PathToWide(directory.Path() / "absent.pem"));
  LoopbackTlsServer server;
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_EQ(log->Lines().front(), Failure(socket));

  // The environment keeps the text itself.
  static std::string setting;
  setting = "SSL_CERT_FILE=" + directory.Write("default.pem", ServerIdentity().CertificatePem()).string();
  ACE_OS::putenv(setting.c_str());
  EXPECT_TRUE(socket.Connect());
  ACE_OS::putenv("SSL_CERT_FILE=");
}

TEST_F(RawTLS, AServerThatNeverAnswersTheHandshakeIsLeftAfterTheLimit) {
  EXPECT_EQ(VaroCommunicationAPI::defaultHandshakeLimit, 60s);
  LoopbackTcpServer silent([](LoopbackTcpServer& self, ServerConnection&, int) { self.HoldUntilStopped(); });
  SSLTCPRawSocket hasty(SSLProtocolList(), 300ms);
  const auto start = std::chrono::steady_clock::now();
  hasty.Open(L"127.0.0.1", silent.Port());
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 290ms);
  EXPECT_LT(waited, 5s);
  EXPECT_FALSE(hasty.IsConnected());
  EXPECT_EQ(hasty.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Cannot connect to server (137)"));
}

TEST_F(RawTLS, AServerThatDribblesInTheHandshakeIsLeftAfterTheLimitAllTheSame) {
  LoopbackTcpServer slow([](LoopbackTcpServer& self, ServerConnection& connection, int) {
    // The head of a long handshake record, and then one byte of it at a time.
    connection.Write(std::string("\x16\x03\x03\x40\x00", 5));
    while (!self.IsStopped()) {
      connection.Write("\x02");
      std::this_thread::sleep_for(20ms);
    }
  });
  SSLTCPRawSocket hasty(SSLProtocolList(), 300ms);
  const auto start = std::chrono::steady_clock::now();
  hasty.Open(L"127.0.0.1", slow.Port());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_FALSE(hasty.IsConnected());
}

TEST_F(RawTLS, AServerThatClosesInsideTheHandshakeGivesThePeersEnd) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) {
    std::string hello;
    connection.ReadSome(hello, 65536);
    connection.Close();
  });
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_EQ(socket.GetLastResultCode(), 10101);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Cannot connect to server (10101)",
                                        "Debug The TLS library's reason: unexpected eof while reading"));
}

TEST_F(RawTLS, AServerThatResetsInsideTheHandshakeGivesItsNumber) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) {
    std::string hello;
    connection.ReadSome(hello, 65536);
    connection.Reset();
  });
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_EQ(socket.GetLastResultCode(), 10054);
}

TEST_F(RawTLS, AServerWithoutTlsIsRefusedWithReason) {
  LoopbackTcpServer server([](LoopbackTcpServer& self, ServerConnection& connection, int) {
    connection.Write("220 this is another protocol altogether\r\n");
    self.HoldUntilStopped();
  });
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_FALSE(socket.IsConnected());
  EXPECT_THAT(log->Lines(), ElementsAre(Failure(socket), "Debug The TLS library's reason: wrong version number"));
  // Others in this thread would take them for their own.
  EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(TlsStreamConnect, LeavesNothingOpenAfterAFailedHandshake) {
  LoopbackTcpServer server([](LoopbackTcpServer&, ServerConnection& connection, int) { connection.Close(); });
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  VaroCommunicationAPI::TlsStream stream(context, VaroCommunicationAPI::StreamUse::Exchange);
  EXPECT_TRUE(stream.Connect({ACE_INET_Addr(server.Port(), "127.0.0.1")}, L"127.0.0.1", [] { return false; }));
  EXPECT_EQ(stream.Handle(), ACE_INVALID_HANDLE);
}

struct VersionCase {
  const char* min;
  const char* max;
  int server;
  const char* negotiated;  ///< null when the handshake must fail
};

class RawTLSVersions : public RawTLS, public testing::WithParamInterface<VersionCase> {};

TEST_P(RawTLSVersions, AreThoseOfTheRange) {
  LoopbackTlsServer server(TlsServerOptions{.minVersion = GetParam().server, .maxVersion = GetParam().server});
  SSLTCPRawSocket ranged(Protocols(GetParam().min, GetParam().max));
  Use(ranged, ServerIdentity().CertificatePem());
  ranged.Open(L"127.0.0.1", server.Port());
  EXPECT_EQ(ranged.IsConnected(), GetParam().negotiated != nullptr);
  if (GetParam().negotiated) {
    EXPECT_THAT(log->Lines(), ElementsAre(StartsWith(std::string("Debug Connected to server using ") +
                                                     GetParam().negotiated + " (cipher: ")));
  } else {
    EXPECT_THAT(log->Lines(), ElementsAre(Failure(ranged), StartsWith("Debug The TLS library's reason: ")));
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, RawTLSVersions,
                         testing::Values(VersionCase{"TLSv1", "TLSv1.2", TLS1_VERSION, "TLSv1"},
                                         VersionCase{"TLSv1", "TLSv1.2", TLS1_1_VERSION, "TLSv1.1"},
                                         VersionCase{"TLSv1", "TLSv1.2", TLS1_2_VERSION, "TLSv1.2"},
                                         VersionCase{"TLSv1", "TLSv1.2", TLS1_3_VERSION, nullptr},
                                         VersionCase{"TLSv1.1", "TLSv1.2", TLS1_VERSION, nullptr},
                                         VersionCase{"TLSv1.1", "TLSv1.2", TLS1_1_VERSION, "TLSv1.1"},
                                         VersionCase{"TLSv1.2", "TLSv1.2", TLS1_1_VERSION, nullptr},
                                         VersionCase{"TLSv1.2", "TLSv1.2", TLS1_2_VERSION, "TLSv1.2"},
                                         VersionCase{"TLSv1", "TLSv1", TLS1_2_VERSION, nullptr},
                                         VersionCase{"TLSv1", "TLSv1", TLS1_VERSION, "TLSv1"},
                                         VersionCase{"TLSv1", "TLSv1.1", TLS1_2_VERSION, nullptr}));

TEST_F(RawTLS, ATimeoutOfZeroDoesNotWait) {
  LoopbackTlsServer server([&](LoopbackTlsServer& self, TlsServerSession& session, int) {
    session.ReadExactly(1);
    session.Write("late");
    self.HoldUntilStopped();
  });
  socket.Open(L"127.0.0.1", server.Port());
  log->Clear();
  char buffer[4];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(socket.Receive(buffer, 4, 0), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_EQ(socket.GetLastResultCode(), 137);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error receiving data: Timeout of 0 reached."));

  // The connection is as good as before.
  socket.Send("x", 1);
  EXPECT_EQ(socket.Receive(buffer, 4, 10000), 4);
  EXPECT_EQ(std::string(buffer, 4), "late");
}

TEST_F(RawTLS, AFarewellGivesThePeersEnd) {
  LoopbackTlsServer server([](LoopbackTlsServer&, TlsServerSession& session, int) {
    session.Write("abc");
    session.CloseNotify();
  });
  socket.Open(L"127.0.0.1", server.Port());
  log->Clear();
  char buffer[4];
  EXPECT_EQ(socket.Receive(buffer, 4, 5000), 0);
  EXPECT_EQ(socket.GetLastResultCode(), 10101);
  EXPECT_THAT(log->Lines(), ElementsAre("Error Error receiving data: 10101"));
}

TEST_F(RawTLS, BytesThatAreNoRecordsEndTheReceive) {
  LoopbackTlsServer server([](LoopbackTlsServer& self, TlsServerSession& session, int) {
    session.Connection().Write("these bytes are no record of the protocol");
    self.HoldUntilStopped();
  });
  socket.Open(L"127.0.0.1", server.Port());
  char buffer[4];
  EXPECT_EQ(socket.Receive(buffer, 4, 5000), -1);
  EXPECT_NE(socket.GetLastResultCode(), 0);
  EXPECT_NE(socket.GetLastResultCode(), 137);
}

}  // namespace
}  // namespace sorvex::test
