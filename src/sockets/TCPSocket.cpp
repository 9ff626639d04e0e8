#include "sockets/TCPSocket.h"

#include "platform/SocketErrors.h"
#include "sockets/StreamConnector.h"

#include <host/Exceptions.h>
#include <host/LoggerFactory.h>

namespace VaroCommunicationAPI {

TCPSocket::TCPSocket(std::shared_ptr<ISocketTime> time) : StreamDestinationSocket(std::move(time)) {}

TCPSocket::~TCPSocket() { EndLife(); }

std::int32_t TCPSocket::Receive(void*, std::uint32_t, std::uint32_t) {
  throw WindowsAgentCommon::OperationNotSupportedException("TCPSocket", "VaroCommunicationAPI::TCPSocket::Receive",
                                                           __LINE__);
}

void TCPSocket::NameLogger() {
  m_log = WindowsAgentCommon::LoggerFactory::GetLogger(
      WindowsAgentCommon::Format("Code.TCPSocket_%p.%s.%d", static_cast<const void*>(this), m_strHost, m_port));
}

int TCPSocket::OpenStream(const std::vector<ACE_INET_Addr>& addresses) {
  auto stream = OwnStream();
  const int error = ConnectStream(*stream, addresses, [this] { return MustGiveUp(); });
  if (error != 0) return error;
  Platform::KeepBacklogSmall(stream->get_handle());
  m_pStream = std::move(stream);
  m_discarded = 0;
  return 0;
}

void TCPSocket::CloseStream() {
  m_pStream->close_writer();
  m_pStream->close();
  m_pStream.reset();
}

void TCPSocket::FinishStream() {
  m_pStream->close_writer();
  AwaitDelivery(
      m_pStream->get_handle(), [this] { return StreamPeerState(); }, [this] { return m_discarded > 0; },
      [this] { return MustGiveUp(); });
}

std::optional<std::uint64_t> TCPSocket::StreamProgress() { return Platform::PeerProgress(m_pStream->get_handle()); }

Platform::WriteOutcome TCPSocket::WriteStream(const char* data, std::size_t length) {
  Platform::WriteOutcome total;
  while (total.m_bytes < length) {
    const Platform::WriteOutcome part =
        Platform::SendNow(m_pStream->get_handle(), data + total.m_bytes, length - total.m_bytes);
    if (part.m_bytes > 0) {
      total.m_bytes += part.m_bytes;
      NoteProgress();
    } else if (part.m_error != Platform::ErrorWouldBlock) {
      total.m_error = part.m_error;
      break;
    } else {
      total.m_error = WaitForRoom(
          m_pStream->get_handle(), [this] { return StreamPeerState(); }, [this] { return MustGiveUp(); });
      if (total.m_error != 0) break;
    }
  }
  return total;
}

int TCPSocket::StreamPeerState() { return Platform::PeerState(m_pStream->get_handle(), &m_discarded); }

int TCPSocket::SetStreamKeepAlive(std::uint32_t timeMs, std::uint32_t intervalMs) {
  return Platform::SetKeepAlive(m_pStream->get_handle(), timeMs, intervalMs);
}

void TCPSocket::ReportConnectFailure(int error) {
  if (error == Platform::ErrorConnectionRefused) {
    m_log.Warn("The target server actively refused the TCP syslog connection.");
  }
}

const char* TCPSocket::KeepAliveWarning() const {
  return "Failed to set keepalive options on the TCP syslog connection; the default OS options will remain in place. "
         "Reason: %s";
}

}  // namespace VaroCommunicationAPI
