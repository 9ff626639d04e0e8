#include "sockets/TCPRawSocket.h"

#include "sockets/StreamConnector.h"

#include <algorithm>
#include <chrono>

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
  const auto* position = static_cast<const char*>(buffer);
  const char* const end = position + length;
  for (;;) {
    std::size_t part = 0;
    const ssize_t count = m_pStream->send_n(position, static_cast<std::size_t>(end - position), nullptr, &part);
    const int error = Platform::LastSocketError();
    position += part;
    if (position == end) return {static_cast<ssize_t>(length), 0};
    if (error != Platform::ErrorInterrupted) return {count, error};
  }
}

RawTransfer TCPRawSocket::ReceiveAll(void* buffer, std::size_t length, const ACE_Time_Value* wait) {
  auto* position = static_cast<char*>(buffer);
  const char* const end = position + length;
  ACE_Time_Value left = wait ? *wait : ACE_Time_Value::zero;
  for (;;) {
    const auto start = std::chrono::steady_clock::now();
    std::size_t part = 0;
    const ssize_t count =
        m_pStream->recv_n(position, static_cast<std::size_t>(end - position), wait ? &left : nullptr, &part);
    // An orderly end of the stream sets no error number.
    const int error = count == 0 ? Platform::ErrorPeerClosed : Platform::LastSocketError();
    position += part;
    if (position == end) return {static_cast<ssize_t>(length), 0};
    if (error != Platform::ErrorInterrupted) return {count, error};
    // A signal. The wait goes on for the rest of its time, or anew when there were bytes.
    if (!wait) continue;
    left = part > 0 ? *wait : left - ACE_Time_Value(std::chrono::steady_clock::now() - start);
    left = std::max(left, ACE_Time_Value::zero);
  }
}

void TCPRawSocket::ReportReceiveFailure(int error, std::uint32_t) { m_log.Error("Error receiving data: %d", error); }

}  // namespace VaroCommunicationAPI
