#include "platform/SocketIo.h"

#include <winsock2.h>

#include <mstcpip.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace VaroCommunicationAPI::Platform {

namespace {

/// Of a call past ACE, which leaves nothing in `errno`.
SocketError LastError() { return ToCallerError(WSAGetLastError()); }

SOCKET ToSocket(ACE_HANDLE handle) { return reinterpret_cast<SOCKET>(handle); }

// Of newer systems than the headers may know.
constexpr DWORD tcpInfoRequest = 0xD8000027;  // SIO_TCP_INFO
constexpr int stateFinWait2 = 6;
constexpr int stateTimeWait = 10;

/// The beginning of the system's TCP_INFO_v0.
struct TcpInfo {
  std::int32_t m_state;
  std::uint32_t m_mss;
  std::uint64_t m_connectionTimeMs;
  std::uint8_t m_timestampsEnabled;
  std::uint32_t m_rttUs;
  std::uint32_t m_minRttUs;
  std::uint32_t m_bytesInFlight;
  std::uint32_t m_congestionWindow;
  std::uint32_t m_sendWindow;
  std::uint32_t m_receiveWindow;
  std::uint32_t m_receiveBuffer;
  std::uint64_t m_bytesOut;
  std::uint64_t m_bytesIn;
  std::uint32_t m_bytesReordered;
  std::uint32_t m_bytesRetransmitted;
  std::uint32_t m_fastRetransmissions;
  std::uint32_t m_duplicateAcksIn;
  std::uint32_t m_timeoutEpisodes;
  std::uint8_t m_synRetransmissions;
};

std::optional<TcpInfo> GetTcpInfo(SOCKET socket) {
  DWORD version = 0;
  TcpInfo info{};
  DWORD returned = 0;
  if (WSAIoctl(socket, tcpInfoRequest, &version, sizeof version, &info, sizeof info, &returned, nullptr, nullptr) ==
          SOCKET_ERROR ||
      returned < sizeof info) {
    return {};
  }
  return info;
}

/// Whether a read would return at once: 1 yes, 0 no, SOCKET_ERROR when the system does not know the socket.
int IsReadable(SOCKET socket) {
  WSAPOLLFD waiting{socket, POLLRDNORM, 0};
  return WSAPoll(&waiting, 1, 0);
}

}  // namespace

ACE_HANDLE OpenSocket(int family, int type) {
  const SOCKET socket = WSASocketW(family, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
  if (socket == INVALID_SOCKET) errno = WSAGetLastError();
  return reinterpret_cast<ACE_HANDLE>(socket);
}

WriteOutcome SendNow(ACE_HANDLE handle, const void* data, std::size_t length) {
  WriteOutcome outcome;
  const int chunk = static_cast<int>(std::min<std::size_t>(length, std::numeric_limits<int>::max()));
  const int count = send(ToSocket(handle), static_cast<const char*>(data), chunk, 0);
  if (count == SOCKET_ERROR) {
    outcome.m_error = LastError();
  } else {
    outcome.m_bytes = static_cast<std::size_t>(count);
  }
  return outcome;
}

DatagramOutcome SendDatagrams(ACE_HANDLE handle, std::span<const std::span<const char>> datagrams) {
  DatagramOutcome outcome;
  for (const std::span<const char> datagram : datagrams) {
    const WriteOutcome written = SendNow(handle, datagram.data(), datagram.size());
    outcome.m_error = written.m_error;
    if (outcome.m_error) break;
    ++outcome.m_datagrams;
  }
  return outcome;
}

SocketError PeerState(ACE_HANDLE handle, std::size_t* discarded) {
  // A receiver has no reason to send. If it does, the data are discarded, because an end of file may follow; with a
  // limit, because a peer that never stops sending must not prevent writing.
  constexpr int maxReads = 16;
  char buffer[4096];
  for (int i = 0; i < maxReads; ++i) {
    const int readable = IsReadable(ToSocket(handle));
    if (readable == 0) return {};
    if (readable == SOCKET_ERROR) return LastError();
    const int count = recv(ToSocket(handle), buffer, sizeof buffer, 0);
    if (count == 0) return ErrorPeerClosed;
    if (count == SOCKET_ERROR) return LastError() == ErrorWouldBlock ? ErrorNone : LastError();
    if (discarded) *discarded += static_cast<std::size_t>(count);
  }
  return {};
}

void KeepBacklogSmall(ACE_HANDLE handle) {
  const int bufferBytes = 256 * 1024;
  setsockopt(ToSocket(handle), SOL_SOCKET, SO_SNDBUF, reinterpret_cast<const char*>(&bufferBytes), sizeof bufferBytes);
}

std::optional<std::uint64_t> PeerProgress(ACE_HANDLE handle) {
  const std::optional<TcpInfo> info = GetTcpInfo(ToSocket(handle));
  if (!info) return {};
  return info->m_bytesOut - info->m_bytesInFlight;
}

bool HasDeliveredAll(ACE_HANDLE handle) {
  // The states in which the peer has acknowledged the end of the stream.
  const std::optional<TcpInfo> info = GetTcpInfo(ToSocket(handle));
  return info && (info->m_state == stateFinWait2 || info->m_state == stateTimeWait);
}

SocketError SetKeepAlive(ACE_HANDLE handle, std::uint32_t timeMs, std::uint32_t intervalMs) {
  tcp_keepalive settings{1, timeMs, intervalMs};
  DWORD returned = 0;
  const int result = WSAIoctl(ToSocket(handle), SIO_KEEPALIVE_VALS, &settings, sizeof settings, nullptr, 0, &returned,
                              nullptr, nullptr);
  return result == SOCKET_ERROR ? LastError() : ErrorNone;
}

// This system raises no signal.
BrokenPipeGuard::BrokenPipeGuard() = default;
BrokenPipeGuard::~BrokenPipeGuard() = default;

}  // namespace VaroCommunicationAPI::Platform
