// The life of a destination socket, and the turns of its threads on the connection.
#pragma once

#include "sockets/PayloadQueue.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

namespace VaroCommunicationAPI {

using SteadyTime = std::chrono::steady_clock::time_point;

/// How long a stop waits for a destination that takes nothing.
constexpr std::chrono::milliseconds stopPatience{1500};

/// Closed, running or stopping: the life of a socket and of its queue, decided in one place under one lock, the
/// queue's.
///
///     closed -- Start --> running -- BeginStop --> stopping -- EndStop --> closed, or running again
///
/// Nothing begins while the socket is stopping: an `Operation` is refused, `Start` starts nothing and nothing goes into
/// the queue. The stop ends when the operations and the send thread that were there have ended. Any thread.
class SocketLife {
 public:
  /// A connect or send in a caller's thread, which a stop waits for. May be nested.
  class Operation {
   public:
    explicit Operation(SocketLife& life) : m_pLife(life.Enter() ? &life : nullptr) {}
    ~Operation() {
      if (m_pLife) m_pLife->Leave();
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    /// False if the socket is stopping: the operation must not begin.
    explicit operator bool() const { return m_pLife != nullptr; }

   private:
    SocketLife* m_pLife;
  };

  PayloadQueue& Queue() { return m_queue; }

  /// Who serves the queue.
  enum class Service { None, SendThread };

  /// Makes the socket running, and also open if `opens`, unless it is stopping. `start`, called under the lock and only
  /// if there is no send thread, starts one, which finds the queue open, and returns whether that worked. If it did
  /// not, returns false, with the socket closed.
  template <class StartThread>
  bool Start(Service service, bool opens, StartThread start) {
    const QueueGuard guard(m_mutex);
    // Whoever stops the socket while it is being opened wants it closed.
    if (m_state == State::Stopping) return true;
    if (service == Service::SendThread && !m_bServing) {
      m_bServing = start();
      if (!m_bServing) {
        m_bOpen.store(false, std::memory_order_relaxed);
        return false;
      }
      m_queue.Open();
    }
    m_state = State::Running;
    if (opens) m_bOpen.store(true, std::memory_order_relaxed);
    return true;
  }

  /// Whether payloads are accepted.
  bool IsOpen() const { return m_bOpen.load(std::memory_order_relaxed); }

  /// Opens, unless the socket is stopping, or closes.
  void SetOpen(bool isOpen);

  /// The send thread's last act: closes the queue and gives up what is in it.
  PayloadQueue::Given EndService();

  enum class StopOutcome {
    Begun,     ///< the caller has to end it
    Anothers,  ///< another thread was stopping the socket and has finished
    Refused    ///< the send thread could not be asked to end and goes on
  };

  /// Begins a stop; a queued socket accepts no payloads from then on, and its send thread ends once it has done with
  /// those in the queue. If another thread is stopping the socket, waits until it has.
  StopOutcome BeginStop(Service service, SteadyTime now);

  /// Waits until the operations that were running when the stop began have ended.
  void AwaitOperations();

  /// A queued socket is then closed; any other returns to its previous state.
  void EndStop(Service service);

  /// Cuts short a stop that is under way: what has not been delivered is given up. Otherwise does nothing.
  void Abandon();

  bool IsStopping() const;

  /// Whether there is a send thread.
  bool IsServing() const;

  /// Whether the socket has been stopping for longer than its patience, counted from `lastProgress` if that is later,
  /// or the stop was abandoned.
  bool MustGiveUp(SteadyTime now, SteadyTime lastProgress) const;

  /// Waits until the socket is stopping or `duration` has passed.
  void WaitForStop(std::chrono::milliseconds duration);

 private:
  enum class State { Closed, Running, Stopping };

  bool Enter();
  void Leave();

  PayloadQueue m_queue;
  ACE_SYNCH_MUTEX& m_mutex = m_queue.Mutex();
  ACE_Condition_Attributes_T<ACE_Monotonic_Time_Policy> m_monotonic;
  ACE_SYNCH_CONDITION m_changed{m_mutex, m_monotonic};
  State m_state = State::Closed;
  State m_before = State::Closed;
  std::atomic<bool> m_bOpen{false};
  int m_operations = 0;
  bool m_bServing = false;
  bool m_bAbandoned = false;
  SteadyTime m_stopTime;
  std::uint64_t m_endedStops = 0;
};

/// One thread at a time uses the connection. While its holder waits for the peer it asks `MustGiveWay`, so that a
/// thread claiming the connection need not wait for the peer as well. Any thread.
class ConnectionTurn {
 public:
  /// How long the holder may go on after somebody claims the connection.
  static constexpr std::chrono::milliseconds claimPatience{250};

  /// Holds the connection for a thread from construction to destruction. Not to be nested.
  class Holder {
   public:
    /// Waits until nobody holds or claims the connection.
    explicit Holder(ConnectionTurn& turn);
    /// Claims it: the present holder gives way, and only claimants get it next.
    Holder(ConnectionTurn& turn, SteadyTime now);
    ~Holder();
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

   private:
    ConnectionTurn& m_turn;
  };

  /// Whether the holder has to stop waiting because of a claim.
  bool MustGiveWay(SteadyTime now) const;

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bHeld = false;
  int m_claims = 0;
  SteadyTime m_claimTime;
};

}  // namespace VaroCommunicationAPI
