#include "sockets/TCPRawSocket.h"

#include "sockets/TcpStream.h"

namespace VaroCommunicationAPI {

TCPRawSocket::TCPRawSocket()
    : RawSocket({.m_loggerName = "Code.TCPRawSocket_%p.%s.%d", .m_noTimeout = 0, .m_timeoutError = nullptr},
                [](const WindowsAgentCommon::Log&) { return std::make_unique<TcpStream>(StreamUse::Exchange); }) {}

std::uint32_t TCPRawSocket::GetBytesSent() const { return m_bytesSent; }

std::uint32_t TCPRawSocket::GetBytesReceived() const { return m_bytesReceived; }

}  // namespace VaroCommunicationAPI
