#include <MakeSocket.h>

#include <cstdint>
#include <stdexcept>

namespace sorvex::agent {

std::shared_ptr<WindowsAgentCommon::ISocket> MakeSocket(WindowsAgentCommon::IConnectionFactory& factory,
                                                        settings::DestinationType type,
                                                        const VaroCommunicationAPI::SSLProtocolList& tlsVersions,
                                                        const std::string& url) {
  using namespace WindowsAgentCommon;
  constexpr std::uint8_t stream = SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET;
  constexpr std::uint8_t datagram = SOCKET_FLAG_DATAGRAM | SOCKET_FLAG_INTERNET;
  std::shared_ptr<IRawSocket> made;
  switch (type) {
    case settings::DestinationType::Tcp: factory.CreateSocket(stream, made); break;
    case settings::DestinationType::Tls: factory.CreateSSLSocket(stream, tlsVersions, made); break;
    case settings::DestinationType::Udp: factory.CreateSocket(datagram, made); break;
  }
  auto socket = std::dynamic_pointer_cast<ISocket>(made);
  if (!socket) throw std::runtime_error("the module made no socket for " + url);
  return socket;
}

}  // namespace sorvex::agent
