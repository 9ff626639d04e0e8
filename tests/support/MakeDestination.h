// The destination socket of each transport, for programs that have the module's objects.
#pragma once

#include "sockets/SSLTCPSocket.h"
#include "sockets/TCPSocket.h"
#include "sockets/UDPSocket.h"
#include "support/Transport.h"

#include <memory>
#include <utility>

namespace sorvex::test {

inline std::unique_ptr<WindowsAgentCommon::ISocket> MakeDestination(
    Transport transport, VaroCommunicationAPI::SocketServices services = {}) {
  using namespace VaroCommunicationAPI;
  switch (transport) {
    case Transport::Tcp: return std::make_unique<TCPSocket>(std::move(services));
    case Transport::Tls: return std::make_unique<SSLTCPSocket>(SSLProtocolList(), std::move(services));
    case Transport::Udp: return std::make_unique<UDPSocket>(std::move(services));
  }
  return nullptr;
}

}  // namespace sorvex::test
