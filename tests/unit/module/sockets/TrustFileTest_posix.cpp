// A certificate file that is none.
#include "sockets/SSLTCPRawSocket.h"

#include <support/LoopbackTlsServer.h>
#include <support/TemporaryDirectory.h>

#include <host/Text.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace sorvex::test {
namespace {

TEST(RawTLSTrustFile, ThatIsAPipeTrustsNobodyAndWaitsForNoWriter) {
  const TemporaryDirectory directory;
  const std::filesystem::path pipe = directory.Path() / "ConfigurationServer.PEM";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  LoopbackTlsServer server;
  VaroCommunicationAPI::SSLTCPRawSocket socket{VaroCommunicationAPI::SSLProtocolList()};
  socket.SetCertificateFile(WindowsAgentCommon::PathToWide(pipe));
  socket.Open(L"127.0.0.1", server.Port());
  EXPECT_FALSE(socket.IsConnected());
}

}  // namespace
}  // namespace sorvex::test
