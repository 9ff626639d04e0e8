// The sockets that the factory makes, by flags.
#include "factory/ConnectionFactory.h"

#include "sockets/SSLTCPRawSocket.h"
#include "sockets/SSLTCPSocket.h"
#include "sockets/TCPRawSocket.h"
#include "sockets/TCPSocket.h"
#include "sockets/UDPSocket.h"

#include <CommunicationAPI/SSLProtocolList.h>
#include <host/Exceptions.h>

namespace VaroCommunicationAPI {

namespace {

using namespace WindowsAgentCommon;

bool HasAll(std::uint8_t flags, unsigned int wanted) { return (flags & wanted) == wanted; }

/// These lines are part of the report that the host logs, and stay fixed whatever their place in this file.
[[noreturn]] void Refuse(const char* function, int line) {
  throw OperationNotSupportedException("ConnectionFactory", function, line);
}

}  // namespace

void ConnectionFactory::CreateSocket(std::uint8_t flags, std::shared_ptr<IRawSocket>& socket) {
  constexpr const char* function = "VaroCommunicationAPI::ConnectionFactory::CreateSocket";
  if (HasAll(flags, SOCKET_FLAG_DATAGRAM | SOCKET_FLAG_INTERNET)) {
    if (HasAll(flags, SOCKET_FLAG_RAW)) Refuse(function, 297);
    socket = std::make_shared<UDPSocket>();
    return;
  }
  if (!HasAll(flags, SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET)) Refuse(function, 310);
  if (HasAll(flags, SOCKET_FLAG_RAW)) {
    socket = std::make_shared<TCPRawSocket>();
  } else {
    socket = std::make_shared<TCPSocket>();
  }
}

void ConnectionFactory::CreateSSLSocket(std::uint8_t flags, const SSLProtocolList& protocols,
                                        std::shared_ptr<IRawSocket>& socket) {
  constexpr const char* function = "VaroCommunicationAPI::ConnectionFactory::CreateSSLSocket";
  if (HasAll(flags, SOCKET_FLAG_DATAGRAM | SOCKET_FLAG_INTERNET)) Refuse(function, 318);
  if (!HasAll(flags, SOCKET_FLAG_STREAM | SOCKET_FLAG_INTERNET)) Refuse(function, 331);
  if (HasAll(flags, SOCKET_FLAG_RAW)) {
    socket = std::make_shared<SSLTCPRawSocket>(protocols);
  } else {
    socket = std::make_shared<SSLTCPSocket>(protocols);
  }
}

}  // namespace VaroCommunicationAPI
