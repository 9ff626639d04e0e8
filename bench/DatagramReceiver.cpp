#include "LoopbackServer.h"
#include "SinkReceiver.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <thread>
#include <vector>

namespace sorvex::bench {
namespace {

constexpr int silenceSeconds = 3;
/// Like a receiver that is busy: waking one for each datagram would dominate the measurement.
constexpr std::chrono::milliseconds gatheringTime{1};

constexpr std::size_t maxDatagrams = 1024;
constexpr std::size_t maxDatagramBytes = 2048;

/// Holds all that is sent while the receiver does not run, so that only the sender can lose datagrams.
constexpr int waitingBytes = 1 << 30;

class UdpReceiver : public SinkReceiver {
 public:
  UdpReceiver() : m_socket(BindLoopback(SOCK_DGRAM, m_port)) {
    if (setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &waitingBytes, sizeof waitingBytes) != 0 &&
        setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &waitingBytes, sizeof waitingBytes) == 0) {
      std::fputs("counting_sink: without root's rights the receive buffer is small, and datagrams may be lost here\n",
                 stderr);
    }
    const timeval silence{silenceSeconds, 0};
    if (setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence) != 0) ThrowSystemError("setsockopt");
    for (std::size_t i = 0; i < maxDatagrams; ++i) {
      m_vectors[i] = {&m_buffer[i * maxDatagramBytes], maxDatagramBytes};
      m_messages[i].msg_hdr.msg_iov = &m_vectors[i];
      m_messages[i].msg_hdr.msg_iovlen = 1;
    }
  }
  std::uint16_t Port() const override { return m_port; }

  void CountAll(std::uint64_t wanted, Counts& counts) override {
    int silences = 0;
    while (counts.events < wanted) {
      const int received = recvmmsg(m_socket, m_messages.data(), maxDatagrams, MSG_WAITFORONE, nullptr);
      if (received > 0) {
        std::size_t bytes = 0;
        for (int i = 0; i < received; ++i) bytes += m_messages[static_cast<std::size_t>(i)].msg_len;
        counts.Add(bytes, static_cast<std::size_t>(received));
        if (received < static_cast<int>(maxDatagrams)) std::this_thread::sleep_for(gatheringTime);
      } else if (errno != EAGAIN && errno != EINTR) {
        ThrowSystemError("recvmmsg");
      } else if (counts.events > 0) {
        return;
      } else if (++silences * silenceSeconds > longestSilenceSeconds) {
        ThrowSilence(counts.events, wanted);
      }
    }
  }

 private:
  std::uint16_t m_port = 0;
  int m_socket;
  std::vector<char> m_buffer = std::vector<char>(maxDatagrams * maxDatagramBytes);
  std::array<iovec, maxDatagrams> m_vectors{};
  std::array<mmsghdr, maxDatagrams> m_messages{};
};

}  // namespace

std::unique_ptr<SinkReceiver> MakeUdpReceiver() { return std::make_unique<UdpReceiver>(); }

}  // namespace sorvex::bench
