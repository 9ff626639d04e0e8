// What tests of both stream transports are given of each: its server, its sockets, and the lines in which these tell of
// a connection.
#pragma once

#include "sockets/SSLTCPRawSocket.h"
#include "sockets/SSLTCPSocket.h"
#include "sockets/TCPRawSocket.h"
#include "sockets/TCPSocket.h"

#include "support/LoopbackTlsServer.h"
#include "support/TemporaryDirectory.h"

#include <host/ParameterBlock.h>
#include <host/Text.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace sorvex::test {

/// What a log is expected to hold.
using ExpectedLines = std::vector<testing::Matcher<std::string>>;

/// A TLS destination socket of the default versions.
class DefaultSSLTCPSocket : public VaroCommunicationAPI::SSLTCPSocket {
 public:
  explicit DefaultSSLTCPSocket(VaroCommunicationAPI::SocketServices services = {})
      : SSLTCPSocket(VaroCommunicationAPI::SSLProtocolList(), std::move(services)) {}
};

/// A raw TLS socket of the default versions that trusts the server of the tests.
class TrustingSSLTCPRawSocket : public VaroCommunicationAPI::SSLTCPRawSocket {
 public:
  TrustingSSLTCPRawSocket() : SSLTCPRawSocket(VaroCommunicationAPI::SSLProtocolList()) {
    SetCertificateFile(
        WindowsAgentCommon::PathToWide(m_directory.Write("trusted.pem", ServerIdentity().CertificatePem())));
  }

 private:
  TemporaryDirectory m_directory{"trusting"};
};

struct OverTcp {
  using Server = LoopbackTcpServer;

  /// A server for which the system takes no more than so much of what nobody reads.
  static Server MakeServer(Server::Handler handler, int receiveBufferBytes) {
    return Server(std::move(handler), 0, receiveBufferBytes);
  }

  /// A server that keeps what comes. Throws `boost::system::system_error` when the machine has no such address.
  static std::unique_ptr<Server> MakeIPv6Server() {
    return std::make_unique<Server>([](Server& self, ServerConnection& connection, int) { self.KeepAllOf(connection); },
                                    std::uint16_t{0}, 0, true);
  }

  /// What a connection is told with, and `further` after that.
  static ExpectedLines ConnectedLines(ExpectedLines further = {}) { return further; }

  /// What the failure of a connection is told with.
  static ExpectedLines FailureLines(int error) {
    if (error != 10061) return {};
    return {"Warn The target server actively refused the TCP syslog connection."};
  }

  using DestinationSocket = VaroCommunicationAPI::TCPSocket;
  static constexpr const char* destinationLoggerFormat = "Code.TCPSocket_%p.127.0.0.1.%d";
  static constexpr const char* destinationSourceFile = "TCPSocket";
  static constexpr const char* destinationReceive = "VaroCommunicationAPI::TCPSocket::Receive";
  static constexpr const char* keepAliveWarning =
      "Warn Failed to set keepalive options on the TCP syslog connection; the default OS options will remain in "
      "place. Reason: ";

  static WindowsAgentCommon::ParameterBlock Target(std::uint16_t port, bool isQueued) {
    return {{"TargetPort", std::to_string(port)}, {"Socket.BlockingSendStrategy", isQueued ? "false" : "true"}};
  }

  /// How long a receiver has to pause after each read to be a slow one.
  static constexpr std::chrono::milliseconds slowReceiverPause{20};

  using RawSocket = VaroCommunicationAPI::TCPRawSocket;
  static constexpr const char* rawLoggerFormat = "Code.TCPRawSocket_%p.127.0.0.1.%d";
  static constexpr std::uint32_t noLimit = 0;
  static constexpr const char* afterASecondOfSilence = "Error Error receiving data: 137";
};

struct OverTls {
  using Server = LoopbackTlsServer;

  static Server MakeServer(Server::Handler handler, int receiveBufferBytes) {
    return Server(std::move(handler), TlsServerOptions{.receiveBufferBytes = receiveBufferBytes});
  }

  static std::unique_ptr<Server> MakeIPv6Server() { return std::make_unique<Server>(TlsServerOptions{.isIPv6 = true}); }

  static ExpectedLines ConnectedLines(ExpectedLines further = {}) {
    further.insert(further.begin(),
                   testing::AllOf(testing::StartsWith("Debug Connected to server using TLSv1.2 (cipher: "),
                                  testing::EndsWith(")")));
    return further;
  }

  static ExpectedLines FailureLines(int error) {
    return {WindowsAgentCommon::Format("Error Cannot connect to server (%d)", error)};
  }

  using DestinationSocket = DefaultSSLTCPSocket;
  static constexpr const char* destinationLoggerFormat = "Code.SSLTCPSocket_%p.127.0.0.1.%d";
  static constexpr const char* destinationSourceFile = "SSLTCPSocket";
  static constexpr const char* destinationReceive = "VaroCommunicationAPI::SSLTCPSocket::Receive";
  static constexpr const char* keepAliveWarning =
      "Warn Failed to set keepalive options on the SSLTCP syslog connection; the default OS options will remain in "
      "place. Reason: ";

  /// What the sockets show unless told otherwise.
  static const std::string& Certificate() {
    static const std::string text = ToBase64(ServerIdentity().CertificatePem());
    return text;
  }

  static WindowsAgentCommon::ParameterBlock Target(std::uint16_t port, bool isQueued,
                                                   const std::string& certificate = Certificate()) {
    WindowsAgentCommon::ParameterBlock parameters = OverTcp::Target(port, isQueued);
    parameters.emplace("Certificate", certificate);
    return parameters;
  }

  // A read takes one record at most.
  static constexpr std::chrono::milliseconds slowReceiverPause{2};

  using RawSocket = TrustingSSLTCPRawSocket;
  static constexpr const char* rawLoggerFormat = "Code.SSLTCPRawSocket_%p.127.0.0.1.%d";
  static constexpr std::uint32_t noLimit = 0xFFFFFFFF;
  static constexpr const char* afterASecondOfSilence = "Error Error receiving data: Timeout of 1000 reached.";
};

/// For typed suites. No name generator: CMake gives a case its type's name only where GoogleTest left a number.
using Transports = testing::Types<OverTcp, OverTls>;

}  // namespace sorvex::test
