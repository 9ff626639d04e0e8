#include "sockets/TCPSocket.h"

#include "sockets/TcpStream.h"

#include <utility>

namespace VaroCommunicationAPI {

TCPSocket::TCPSocket(SocketServices services)
    : StreamDestinationSocket(
          {.m_loggerName = "Code.TCPSocket_%p.%s.%d",
           .m_className = "TCPSocket",
           .m_receiveFunction = "VaroCommunicationAPI::TCPSocket::Receive",
           .m_keepAliveWarning = "Failed to set keepalive options on the TCP syslog connection; the default OS options "
                                 "will remain in place. Reason: %s",
           .m_makeStream =
               [](const WindowsAgentCommon::Log&) { return std::make_unique<TcpStream>(StreamUse::Delivery); },
           .m_readParameters = {}},
          std::move(services)) {}

TCPSocket::~TCPSocket() { EndLife(); }

}  // namespace VaroCommunicationAPI
