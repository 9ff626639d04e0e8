// Texts logged only at Debug are not made when nobody keeps them.
#include "FreedMemory.h"
#include "wire/TestBlock.h"

#include "sockets/SSLTCPRawSocket.h"
#include "support/FakeRawSocket.h"
#include "support/HexBytes.h"
#include "support/LoopbackTlsServer.h"
#include "support/TemporaryDirectory.h"
#include "wire/SSLConfigServerAPIClient_v2.h"
#include "wire/SocketSerializer.h"

#include <host/LoggerFactory.h>
#include <host/Text.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace sorvex::test {
namespace {

using WindowsAgentCommon::LoggerFactory;
using WindowsAgentCommon::LogLevel;

/// Accepts records from a level on, and forgets them.
class ForgettingSink : public WindowsAgentCommon::ILogSink {
 public:
  explicit ForgettingSink(LogLevel lowest) : m_lowest(lowest) {}
  bool IsEnabled(LogLevel level) const override { return level >= m_lowest; }
  void Write(LogLevel, const std::string&, const std::string&) override {}

 private:
  const LogLevel m_lowest;
};

/// Returns how many blocks freed by `action` held all of `text` when the log keeps this level.
template <class Action>
int BlocksWith(std::string_view text, LogLevel level, Action action) {
  const auto previous = LoggerFactory::SetSink(std::make_shared<ForgettingSink>(level));
  const FreedMemory freed(text, text.size());
  action();
  LoggerFactory::SetSink(previous);
  return freed.BlocksWithSecret();
}

TEST(DebugText, OfTheEstablishedVersionsIsMadeOnlyForALogThatKeepsIt) {
  const auto establish = [] {
    const auto socket =
        std::make_shared<FakeRawSocket>(HexBytes("00000006 00000012 00000003 '2.0' 00000000 00000003 '2.0'"));
    VaroCommunicationAPI::SocketSerializer serializer(socket);
    SSLConfigServerProto::SSLConfigServerAPIClient_v2 client("agent", "token", *SSLConfigServerProto::MakeBlock("key"));
    client.ConnectionEstablishment(serializer, SSLConfigServerProto::CONNECTION_FLAG_NONE);
  };
  constexpr std::string_view text = "cli:2.0 --> svr:2.0";
  EXPECT_GT(BlocksWith(text, LogLevel::Debug, establish), 0);
  EXPECT_EQ(BlocksWith(text, LogLevel::Info, establish), 0);
}

TEST(DebugText, OfARefusedHandshakeIsMadeOnlyForALogThatKeepsIt) {
  const TemporaryDirectory directory("debug-text");
  const auto file = directory.Write("trusted.pem", TlsIdentity("stranger").CertificatePem());
  LoopbackTlsServer server;
  const auto connect = [&] {
    VaroCommunicationAPI::SSLTCPRawSocket socket{VaroCommunicationAPI::SSLProtocolList()};
    socket.SetCertificateFile(WindowsAgentCommon::PathToWide(file));
    socket.Open(L"127.0.0.1", server.Port());
    EXPECT_FALSE(socket.IsConnected());
  };
  constexpr std::string_view text = "verify failed (self-signed certificate)";
  EXPECT_GT(BlocksWith(text, LogLevel::Debug, connect), 0);
  EXPECT_EQ(BlocksWith(text, LogLevel::Info, connect), 0);
}

}  // namespace
}  // namespace sorvex::test
