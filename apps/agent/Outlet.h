// One destination of the command that sends lines as events.
#pragma once

#include <CommandLine.h>

#include <host/Event.h>
#include <host/IConnectionFactory.h>
#include <host/ISocket.h>
#include <host/IUDPSocket.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace sorvex::agent {

/// The socket of a destination and what became of the events that were meant for it. One thread opens, sends and
/// closes; what tells something may be called from any.
class Outlet {
 public:
  /// Makes the socket; does not open it. `destination` and `command` outlive the outlet.
  Outlet(const Destination& destination, const ForwardCommand& command,
         WindowsAgentCommon::IConnectionFactory& factory);
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  void Open();

  /// Sends the event, again and again if need be. Once it has given up, it only counts events as unsent.
  void Send(const WindowsAgentCommon::Event& event);

  /// Shuts the socket down; what is queued is written if it can be.
  void Close();

  /// From now on the first event that the socket refuses makes the outlet give up. Any thread.
  void StopInsisting() { m_bInsists.store(false, std::memory_order_relaxed); }

  /// No event is sent any more. Any thread, as all that follows.
  void GiveUp() { m_bGivenUp.store(true, std::memory_order_relaxed); }
  bool HasGivenUp() const { return m_bGivenUp.load(std::memory_order_relaxed); }

  /// Counts events that no attempt sends.
  void CountUnsent(std::uint64_t events) { m_unsent.fetch_add(events, std::memory_order_relaxed); }

  std::uint64_t Refused() const { return m_refused.load(std::memory_order_relaxed); }  ///< attempts to send that failed
  std::uint64_t Unsent() const { return m_unsent.load(std::memory_order_relaxed); }
  const std::string& Url() const { return m_destination.url; }
  const WindowsAgentCommon::ISocket& Socket() const { return *m_pSocket; }

  /// Prints the counters of the socket and the outlet.
  void PrintCounters() const;

  /// Whether all of `events` events have been sent and the socket ended in order.
  bool HasSentAll(std::uint64_t events) const;

 private:
  WindowsAgentCommon::ParameterBlock GetSocketParameters() const;
  bool TrySend(const WindowsAgentCommon::Event& event);
  bool IsUnsendable() const;
  void ReportUnsendable();

  const Destination& m_destination;
  const ForwardCommand& m_command;
  std::shared_ptr<WindowsAgentCommon::ISocket> m_pSocket;
  const WindowsAgentCommon::IUDPSocket* m_pUdpSocket = nullptr;  ///< the same, when it is one
  bool m_bUnsendableReported = false;
  std::atomic<bool> m_bClosed{false};
  std::atomic<bool> m_bInsists{true};
  std::atomic<bool> m_bGivenUp{false};
  std::atomic<std::uint64_t> m_refused{0};
  std::atomic<std::uint64_t> m_unsent{0};
};

}  // namespace sorvex::agent
