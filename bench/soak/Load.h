// One socket of the soak with its producers, and the balance its counters must keep.
#pragma once

#include <host/ISocket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace sorvex::soak {

class Load {
 public:
  /// The socket is initialised; `producers` threads send over it from now on.
  Load(std::string name, std::shared_ptr<WindowsAgentCommon::ISocket> socket, int producers, std::uint32_t seed);
  ~Load();
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  /// Checks that the counters only grow and that the queue stays within its bound. One thread.
  void Watch();

  /// Ends the producers before `ShutDown`, which otherwise shuts the socket down while they send.
  void JoinProducers();

  /// Shuts the socket down; complains if that takes too long or leaves the counters unbalanced.
  void ShutDown();

  /// One line of counters.
  void Print() const;

  const std::string& Name() const { return m_name; }
  std::uint32_t Sent() const { return m_pSocket->GetMessagesSent(); }
  std::uint64_t Complaints() const { return m_complaints; }

 private:
  void Produce(int producer, std::uint32_t seed);
  void Complain(const std::string& text);
  void CheckLaw();

  const std::string m_name;
  const std::shared_ptr<WindowsAgentCommon::ISocket> m_pSocket;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bClosing{false};
  std::atomic<std::uint32_t> m_accepted{0};
  std::atomic<std::uint32_t> m_refused{0};       ///< while the socket had to accept payloads
  std::atomic<std::uint32_t> m_refusedAtEnd{0};  ///< after its shutdown began
  std::atomic<std::uint64_t> m_complaints{0};
  std::vector<std::uint32_t> m_lastCounters;
  std::vector<std::thread> m_producers;
};

}  // namespace sorvex::soak
