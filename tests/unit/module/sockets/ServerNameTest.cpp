// The name of the server that a TLS client sends, and when it sends none.
#include "Transports.h"

#include "platform/NameResolver.h"
#include "sockets/TlsStream.h"

#include <support/LoopbackTlsServer.h>

#include <ace/SSL/SSL_Context.h>
#include <gtest/gtest.h>

#include <string>

namespace sorvex::test {
namespace {

using VaroCommunicationAPI::TlsStream;

/// A server that keeps the names which its clients send; "-" for none.
class NameKeepingServer {
 public:
  NameKeepingServer()
      : m_server([](LoopbackTlsServer& self, TlsServerSession& session, int) {
          const char* const name = SSL_get_servername(session.Native(), TLSEXT_NAMETYPE_host_name);
          self.AddReceived(name ? name : "-");
          self.HoldUntilStopped();
        }) {}

  std::uint16_t Port() const { return m_server.Port(); }
  std::string Name() { return m_server.WaitForBytes(1); }

 private:
  LoopbackTlsServer m_server;
};

struct Host {
  const wchar_t* host;
  const char* sent;
};

class ServerName : public testing::TestWithParam<Host> {};

TEST_P(ServerName, IsSentUnlessItIsAnAddress) {
  NameKeepingServer server;
  ACE_SSL_Context context;
  context.set_mode(ACE_SSL_Context::SSLv23_client);
  VaroCommunicationAPI::SSLProtocolList().applyTo(context);
  TlsStream stream(context, VaroCommunicationAPI::StreamUse::Exchange);
  const auto goOn = [] { return false; };
  using namespace VaroCommunicationAPI::Platform;
  ASSERT_EQ(stream.Connect(ResolveHost(L"127.0.0.1", server.Port(), AddressFamily::Any, goOn).m_addresses,
                           GetParam().host, goOn),
            ErrorNone);
  EXPECT_EQ(server.Name(), GetParam().sent);
}

INSTANTIATE_TEST_SUITE_P(Hosts, ServerName,
                         testing::Values(Host{L"server.example", "server.example"},
                                         Host{L"server.example.", "server.example"}, Host{L"10.example", "10.example"},
                                         Host{L"127.0.0.1", "-"}, Host{L"127.1", "-"}, Host{L"::1", "-"},
                                         Host{L"[::1]", "-"}, Host{L"fe80::1%eth0", "-"}, Host{L"", "-"}));

TEST(ServerNameOfSocket, IsSentByTheRawSocket) {
  NameKeepingServer server;
  TrustingSSLTCPRawSocket socket;
  socket.Open(L"localhost", server.Port());
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(server.Name(), "localhost");
}

TEST(ServerNameOfSocket, IsSentByTheDestinationSocket) {
  NameKeepingServer server;
  DefaultSSLTCPSocket socket;
  WindowsAgentCommon::ParameterBlock parameters = OverTls::Target(server.Port(), false);
  parameters.emplace("TargetAddress", "localhost");
  socket.Initialize(parameters);
  EXPECT_TRUE(socket.IsConnected());
  EXPECT_EQ(server.Name(), "localhost");
  socket.Shutdown();
}

}  // namespace
}  // namespace sorvex::test
