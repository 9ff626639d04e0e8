// A UDP receiver on a free loopback port.
#pragma once

#include "LoopbackTcpServer.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sorvex::test {

/// Returns a loopback port on which no datagram is received now.
std::uint16_t UnusedUdpPort();

class LoopbackUdpServer {
 public:
  /// Called with each datagram, in a thread of the server.
  using Taker = std::function<void(std::string_view datagram)>;

  /// Keeps every datagram; see `Datagrams`.
  LoopbackUdpServer() : LoopbackUdpServer([this](std::string_view datagram) { Keep(datagram); }) {}

  explicit LoopbackUdpServer(Taker taker, std::uint16_t port = 0);
  ~LoopbackUdpServer();
  LoopbackUdpServer(const LoopbackUdpServer&) = delete;
  LoopbackUdpServer& operator=(const LoopbackUdpServer&) = delete;

  std::uint16_t Port() const;
  std::vector<std::string> Datagrams() const;

  /// Waits until at least `count` datagrams have arrived; returns them.
  std::vector<std::string> WaitForDatagrams(std::size_t count);

 private:
  struct State;

  void Keep(std::string_view datagram);
  void Receive();

  Taker m_taker;
  std::unique_ptr<State> m_pState;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_datagrams;
  std::thread m_thread;
};

}  // namespace sorvex::test
