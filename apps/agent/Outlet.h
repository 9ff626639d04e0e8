// One destination of the command that sends lines as events.
#pragma once

#include <CommandLine.h>
#include <Counter.h>

#include <host/Event.h>
#include <host/IConnectionFactory.h>
#include <host/ISocket.h>
#include <host/IUDPSocket.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace sorvex::agent {

/// An outlet's progress. While there is something to do and the other members stay the same, it makes none.
struct OutletActivity {
  bool isPending = false;         ///< an event is being sent, or the socket opened
  bool isRefused = false;         ///< the socket has already refused that event
  std::uint32_t moved = 0;        ///< events that the socket is done with; wraps
  std::uint64_t beganNumber = 0;  ///< of the current work; the same while events wait in the queue
  std::uint32_t failures = 0;     ///< failed sends that a UDP socket has counted
};

/// A destination's socket and the fate of its events. One thread opens, sends and closes, and retries each event until
/// the outlet is given up. The supervisor decides when to give up.
class Outlet {
 public:
  /// Makes the socket; does not open it. `destination` and `command` outlive the outlet.
  Outlet(const Destination& destination, const ForwardCommand& command,
         WindowsAgentCommon::IConnectionFactory& factory);
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  // The sending thread's own.

  class Work;

  /// An outlet whose socket can never be opened is given up.
  void Open();

  /// Sends the event, repeatedly if necessary. Once the outlet is given up, the event is only counted as unsent. The
  /// sending thread is at `Work` as long as it has events to send.
  void Send(const WindowsAgentCommon::Event& event);

  /// Shuts the socket down, writing the queue if possible. Call it once, last.
  void Close();

  // Any thread.

  /// Ends what the sending thread is waiting for, and shuts the socket down as `Close` does, in its own thread. From
  /// now on events are only counted. Does nothing after the first call, and once `Close` has begun.
  void GiveUp(const std::string& reason);
  bool HasGivenUp() const { return m_bGivenUp; }

  /// Ends a `Close` or `GiveUp` that is still writing: the rest of the queue is dropped.
  void Abandon() { m_pSocket->Close(); }
  bool IsClosed() const { return m_bClosed; }

  /// Says that no more events follow, and that the end is not to wait for a dead destination.
  void NoteEndOfInput() { m_bInputEnded = true; }
  bool HasInputEnded() const { return m_bInputEnded; }

  /// Whether there has been no progress for a while; the supervisor finds out.
  void SetStalled(bool isStalled) { m_bStalled = isStalled; }
  bool IsStalled() const { return m_bStalled; }

  OutletActivity GetActivity() const;

  /// Counts events that did not fit while others continued.
  void CountLeftOut(std::uint64_t events) { (HasGivenUp() ? m_givenUp : m_leftOut) += events; }

  /// Failed attempts to send.
  std::uint64_t Refused() const { return m_refused + m_refusedClosed; }
  /// Events never sent.
  std::uint64_t Unsent() const { return m_leftOut + m_undeliverable + m_givenUp; }
  const std::string& Url() const { return m_destination.url; }
  const WindowsAgentCommon::ISocket& Socket() const { return *m_pSocket; }

  /// Prints the counters of the socket and the outlet.
  void PrintCounters() const;

  /// Reports on standard error how many events were lost, and why.
  void ReportLoss() const;

  /// Whether all of `events` events were sent and the socket ended properly.
  bool HasSentAll(std::uint64_t events) const;

 private:
  enum class Attempt { Taken, Refused, Undeliverable };

  WindowsAgentCommon::ParameterBlock GetSocketParameters() const;
  Attempt TrySend(const WindowsAgentCommon::Event& event);
  bool IsUndeliverable(bool isEmpty) const;
  void ReportUndeliverable();
  void WaitForRetry();
  void ShutDown();
  void StopSocket();

  const Destination& m_destination;
  const ForwardCommand& m_command;
  std::shared_ptr<WindowsAgentCommon::ISocket> m_pSocket;
  const WindowsAgentCommon::IUDPSocket* m_pUdpSocket = nullptr;  ///< the same, when it is one
  const bool m_bSendsEmptyPayloads;                              ///< an event without text has bytes on the wire

  // The sending thread's own.
  std::uint32_t m_submitted = 0;
  bool m_bUndeliverableReported = false;

  std::atomic<bool> m_bWorking{false};  ///< the sending thread uses the socket
  std::atomic<bool> m_bRefused{false};
  Counter m_beganNumber;
  Counter m_accepted;
  std::atomic<bool> m_bInputEnded{false};
  std::atomic<bool> m_bStalled{false};

  std::atomic<std::uint64_t> m_refused{0};        ///< after the socket had counted them as submitted
  std::atomic<std::uint64_t> m_refusedClosed{0};  ///< because the socket was not open
  std::atomic<std::uint64_t> m_leftOut{0};
  std::atomic<std::uint64_t> m_undeliverable{0};
  std::atomic<std::uint64_t> m_givenUp{0};

  mutable std::mutex m_mutex;
  std::condition_variable m_gaveUp;
  std::atomic<bool> m_bGivenUp{false};  ///< changed under the mutex
  bool m_bClosing = false;
  std::string m_strReason;
  std::atomic<bool> m_bClosed{false};
  std::atomic<bool> m_bClosedInOrder{false};
  std::jthread m_stopper;  ///< last: it uses the others until it is joined
};

/// While one exists, the sending thread uses the socket. Whoever gives the outlet up sets the flag first and then looks
/// for work, the sending thread the other way round: so at least one of the two sees the other.
class Outlet::Work {
 public:
  explicit Work(Outlet& outlet) : m_outlet(outlet) { m_outlet.m_bWorking = true; }
  ~Work() { m_outlet.m_bWorking = false; }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

 private:
  Outlet& m_outlet;
};

}  // namespace sorvex::agent
