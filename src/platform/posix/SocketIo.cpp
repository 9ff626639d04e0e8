#include "platform/SocketIo.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <limits>

namespace VaroCommunicationAPI::Platform {

namespace {

/// Whole seconds, at least one, at most what the option takes.
int SecondsRoundedUp(std::uint32_t milliseconds) {
  const std::uint32_t seconds = milliseconds / 1000 + (milliseconds % 1000 != 0 ? 1 : 0);
  return static_cast<int>(std::clamp<std::uint32_t>(seconds, 1, 32767));
}

sigset_t BrokenPipeSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool IsBrokenPipePending() {
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

ACE_HANDLE OpenSocket(int family, int type) { return socket(family, type | SOCK_CLOEXEC, 0); }

WriteOutcome SendNow(ACE_HANDLE handle, const void* data, std::size_t length) {
  WriteOutcome outcome;
  ssize_t count = 0;
  do {
    count = send(handle, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (count == -1 && errno == EINTR);
  if (count == -1) {
    outcome.m_error = LastSocketError();
  } else {
    outcome.m_bytes = static_cast<std::size_t>(count);
  }
  return outcome;
}

DatagramOutcome SendDatagrams(ACE_HANDLE handle, std::span<const std::span<const char>> datagrams) {
  constexpr std::size_t maxPerCall = 128;
  std::array<mmsghdr, maxPerCall> messages;
  std::array<iovec, maxPerCall> vectors;
  DatagramOutcome outcome;
  while (outcome.m_datagrams < datagrams.size()) {
    const std::size_t count = std::min(maxPerCall, datagrams.size() - outcome.m_datagrams);
    for (std::size_t i = 0; i < count; ++i) {
      const std::span<const char> datagram = datagrams[outcome.m_datagrams + i];
      // The system only reads what the vector points at.
      vectors[i] = {const_cast<char*>(datagram.data()), datagram.size()};
      messages[i] = {};
      messages[i].msg_hdr.msg_iov = &vectors[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = sendmmsg(handle, messages.data(), static_cast<unsigned int>(count), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      outcome.m_datagrams += static_cast<std::size_t>(sent);
    } else if (errno != EINTR) {
      outcome.m_error = LastSocketError();
      break;
    }
  }
  return outcome;
}

SocketError PeerState(ACE_HANDLE handle, std::size_t* discarded) {
  // A receiver has no reason to send. If it does, the data are discarded, because an end of file may follow; with a
  // limit, because a peer that never stops sending must not prevent writing.
  constexpr int maxReads = 16;
  char buffer[4096];
  for (int i = 0; i < maxReads; ++i) {
    const ssize_t count = recv(handle, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count == 0) return ErrorPeerClosed;
    if (count == -1) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return {};
      return LastSocketError();
    }
    if (discarded) *discarded += static_cast<std::size_t>(count);
  }
  return {};
}

void KeepBacklogSmall(ACE_HANDLE handle) {
  // Data in transit do not count, so a fast connection over a long distance is not slowed down.
  const int unsentBytes = 128 * 1024;
  setsockopt(handle, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsentBytes, sizeof unsentBytes);
}

std::optional<std::uint64_t> PeerProgress(ACE_HANDLE handle) {
  int unacknowledged = 0;
  if (ioctl(handle, SIOCOUTQ, &unacknowledged) == -1) return {};
  return static_cast<std::uint64_t>(unacknowledged);
}

bool HasDeliveredAll(ACE_HANDLE handle) { return PeerProgress(handle) == 0u; }

SocketError SetKeepAlive(ACE_HANDLE handle, std::uint32_t timeMs, std::uint32_t intervalMs) {
  const int on = 1;
  const int idle = SecondsRoundedUp(timeMs);
  const int interval = SecondsRoundedUp(intervalMs);
  if (setsockopt(handle, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) == -1) return LastSocketError();
  if (setsockopt(handle, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle) == -1) return LastSocketError();
  if (setsockopt(handle, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval) == -1) return LastSocketError();
  return {};
}

BrokenPipeGuard::BrokenPipeGuard() {
  // A signal that was already pending is not ours and stays.
  if (IsBrokenPipePending()) return;
  const sigset_t set = BrokenPipeSet();
  sigset_t previous;
  sigemptyset(&previous);
  m_bRestore = pthread_sigmask(SIG_BLOCK, &set, &previous) == 0 && sigismember(&previous, SIGPIPE) == 0;
}

BrokenPipeGuard::~BrokenPipeGuard() {
  if (!m_bRestore) return;
  const int savedErrno = errno;
  const sigset_t set = BrokenPipeSet();
  if (IsBrokenPipePending()) {
    const timespec noWait{};
    while (sigtimedwait(&set, nullptr, &noWait) == -1 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  errno = savedErrno;
}

}  // namespace VaroCommunicationAPI::Platform
