#include "sockets/TcpStream.h"

namespace VaroCommunicationAPI {

TcpStream::TcpStream(StreamUse use) : m_use(use) {}

TcpStream::~TcpStream() { Close(); }

SocketError TcpStream::Connect(const std::vector<ACE_INET_Addr>& addresses, const std::wstring&,
                               const IsInterrupted& isInterrupted) {
  return ConnectStream(m_stream, addresses, m_use, isInterrupted);
}

void TcpStream::ReportConnect(const WindowsAgentCommon::Log& log, SocketError error) const {
  if (error == Platform::ErrorConnectionRefused) {
    log.Warn("The target server actively refused the TCP syslog connection.");
  }
}

Platform::WriteOutcome TcpStream::Write(const char* data, std::size_t length, const IsInterrupted& isInterrupted,
                                        const std::function<void()>& onProgress) {
  Platform::WriteOutcome total;
  while (total.m_bytes < length && !total.m_error) {
    const Platform::WriteOutcome part = Platform::SendNow(Handle(), data + total.m_bytes, length - total.m_bytes);
    if (part.m_bytes > 0) {
      total.m_bytes += part.m_bytes;
      onProgress();
    } else if (part.m_error != Platform::ErrorWouldBlock) {
      total.m_error = part.m_error;
    } else if (m_use == StreamUse::Delivery) {
      total.m_error = WaitForRoom(*this, isInterrupted);
    } else {
      total.m_error = WaitUntilReady(Handle(), Readiness::Writable, isInterrupted);
    }
  }
  return total;
}

SocketError TcpStream::Read(char* buffer, std::size_t length, const ACE_Time_Value* wait) {
  std::size_t filled = 0;
  // A signal neither ends nor extends a wait; each arrival of bytes starts a new one.
  Deadline deadline = DeadlineAfter(wait);
  while (filled < length) {
    const ssize_t count = m_stream.recv(buffer + filled, length - filled);
    if (count > 0) {
      filled += static_cast<std::size_t>(count);
      deadline = DeadlineAfter(wait);
      continue;
    }
    if (count == 0) return Platform::ErrorPeerClosed;
    SocketError error = Platform::LastSocketError();
    if (error == Platform::ErrorInterrupted) continue;
    if (error == Platform::ErrorWouldBlock) {
      error = WaitUntilReady(
          Handle(), Readiness::Readable, [] { return false; }, deadline);
    }
    if (error) return error;
  }
  return {};
}

SocketError TcpStream::PeerState() { return Platform::PeerState(Handle(), &m_discarded); }

void TcpStream::Finish(const IsInterrupted& isInterrupted) {
  m_stream.close_writer();
  AwaitDelivery(
      *this, [this] { return m_discarded > 0; }, isInterrupted);
}

void TcpStream::Close() {
  if (Handle() == ACE_INVALID_HANDLE) return;
  m_stream.close_writer();
  m_stream.close();
}

ACE_HANDLE TcpStream::Handle() const { return m_stream.get_handle(); }

}  // namespace VaroCommunicationAPI
