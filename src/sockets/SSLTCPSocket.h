// A destination socket over TLS.
#pragma once

#include "sockets/StreamDestinationSocket.h"
#include "sockets/TlsStream.h"

#include <CommunicationAPI/SSLProtocolList.h>

#include <chrono>
#include <memory>
#include <string>

namespace VaroCommunicationAPI {

/// Like `TCPSocket`, over a TLS stream. `Initialize` throws `InitializationException` without a "Certificate", and the
/// socket then stays unopened. The receiver's certificate is not verified, deliberately. The parameter block must
/// contain a certificate, but not its key, so it cannot be shown: a receiver that asks for one gets none, and one that
/// insists on it refuses the connection.
class SSLTCPSocket : public StreamDestinationSocket {
 public:
  explicit SSLTCPSocket(const SSLProtocolList& protocols, SocketServices services = {},
                        std::chrono::milliseconds handshakeLimit = defaultHandshakeLimit);
  ~SSLTCPSocket() override;

 private:
  void ReadCertificate(const WindowsAgentCommon::EnvironmentBlockHelper& parameters);
  std::unique_ptr<ISocketStream> MakeStream(const WindowsAgentCommon::Log& log) const;

  const SSLProtocolList m_protocols;
  const std::chrono::milliseconds m_handshakeLimit;
  std::string m_strCertificate;
};

}  // namespace VaroCommunicationAPI
