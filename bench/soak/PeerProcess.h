// The peers in their own process, so that their resources do not count as the sockets'.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include <sys/types.h>

namespace sorvex::soak {

/// To be created before any thread is started.
class PeerProcess {
 public:
  explicit PeerProcess(std::uint32_t seed);
  ~PeerProcess();
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  std::uint16_t PortOf(const std::string& peer) const { return m_ports.at(peer); }

  /// Ends the faults, waits for the end of every connection, and prints what the peers got. Returns whether everything
  /// was right; `received` holds the number of payloads of each peer.
  bool Finish(std::map<std::string, std::uint64_t>& received);

 private:
  int m_toPeers = -1;
  std::FILE* m_pFromPeers = nullptr;
  pid_t m_process = -1;
  std::map<std::string, std::uint16_t> m_ports;
};

}  // namespace sorvex::soak
