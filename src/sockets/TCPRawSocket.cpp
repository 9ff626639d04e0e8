#include "sockets/TCPRawSocket.h"

#include "sockets/StreamConnector.h"

namespace VaroCommunicationAPI {

std::uint32_t TCPRawSocket::GetBytesSent() const { return m_bytesSent; }

std::uint32_t TCPRawSocket::GetBytesReceived() const { return m_bytesReceived; }

int TCPRawSocket::OpenStream(const std::vector<ACE_INET_Addr>& addresses) {
  auto stream = OwnStream();
  const int error = ConnectStream(*stream, addresses, [] { return false; });
  if (error != 0) return error;
  stream->disable(ACE_NONBLOCK);
  SendWithoutDelay(stream->get_handle());
  m_pStream = std::move(stream);
  return 0;
}

void TCPRawSocket::CloseStream() {
  m_pStream->close_writer();
  m_pStream->close_reader();
  m_pStream->close();
  m_pStream.reset();
}

void TCPRawSocket::ReportConnectFailure(int error) {
  if (error == Platform::ErrorConnectionRefused) {
    m_log.Warn("The target server actively refused the TCP syslog connection.");
  }
}

RawTransfer TCPRawSocket::SendAll(const void* buffer, std::size_t length) {
  const ssize_t count = m_pStream->send_n(buffer, length);
  return {count, Platform::LastSocketError()};
}

RawTransfer TCPRawSocket::ReceiveAll(void* buffer, std::size_t length, const ACE_Time_Value* wait) {
  const ssize_t count = m_pStream->recv_n(buffer, length, wait);
  // An orderly end of the stream sets no error number.
  return {count, count == 0 ? Platform::ErrorPeerClosed : Platform::LastSocketError()};
}

void TCPRawSocket::ReportReceiveFailure(int error, std::uint32_t) { m_log.Error("Error receiving data: %d", error); }

}  // namespace VaroCommunicationAPI
