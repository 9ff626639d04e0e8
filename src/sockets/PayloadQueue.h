// The queue between the producers of payloads and the thread that writes them.
#pragma once

#include "sockets/Framing.h"

#include <ace/Monotonic_Time_Policy.h>
#include <ace/Task.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

namespace VaroCommunicationAPI {

/// Holds a queue's lock.
class QueueGuard {
 public:
  explicit QueueGuard(ACE_SYNCH_MUTEX& mutex);
  ~QueueGuard() { m_mutex.release(); }
  QueueGuard(const QueueGuard&) = delete;
  QueueGuard& operator=(const QueueGuard&) = delete;

 private:
  ACE_SYNCH_MUTEX& m_mutex;
};

/// A point of the monotonic clock, as ACE's queues and conditions want it.
ACE_Time_Value_T<ACE_Monotonic_Time_Policy> DeadlineAfter(std::chrono::milliseconds duration);

/// Payloads as they are on the wire, one after the other, and the length of each without its framing.
struct FramedPayloads {
  std::span<const char> m_bytes;
  std::span<const std::uint32_t> m_lengths;
};

/// ACE's message queue with its own store: payloads lie framed in large chunks, from which the send thread writes them,
/// so that a payload costs one copy and nothing else. A payload leaves the queue when it is done with.
///
/// Short payloads take more memory than their own bytes, so a queue is also full when it holds a sixteenth of its high
/// water mark in payloads. Blocks enter only by `enqueue_tail`, and none come out.
///
/// Whoever decides when the queue opens and closes shares its lock.
class PayloadQueue : public ACE_Message_Queue<ACE_MT_SYNCH, ACE_Monotonic_Time_Policy> {
 public:
  static constexpr std::size_t bytesPerPayload = 16;

  /// The most bytes that `Await` gives, unless one payload alone is longer.
  static constexpr std::size_t chunkBytes = 64 * 1024;

  /// What is at the head.
  enum class Head {
    Payloads,
    HangUp,   ///< already removed
    Nothing,  ///< for as long as it waited
    Closed    ///< nothing more can go in or out
  };

  /// Applies to payloads appended from then on.
  void SetFraming(const Framing& framing) { m_framing = framing; }

  /// Appends a payload, waiting at most `patience` for room. Returns false if there was none, or no memory, or after
  /// `HangUp` or `GiveUp`.
  bool Put(std::span<const char> payload, std::chrono::milliseconds patience);

  /// Waits at most `patience` for something at the head. Lends the payloads there until `Remove`; they keep their place
  /// but no longer count. Only for the send thread.
  Head Await(std::chrono::milliseconds patience, FramedPayloads& payloads);

  /// Takes back what `Await` lent, except the first `payloads` of them, which are done with. Always finds room.
  void Remove(std::size_t payloads);

  /// What was given up.
  struct Given {
    std::size_t m_payloads = 0;
    std::size_t m_bytes = 0;
  };

  ACE_SYNCH_MUTEX& Mutex() { return lock_; }

  // With the lock held.

  /// Opens the queue, as it is at first.
  void Open() { activate_i(); }

  /// Appends a hang-up, for which there is always room; nothing goes in behind it. Returns false if the queue is
  /// closed.
  bool HangUp();

  /// Closes the queue and empties it.
  Given GiveUp();

 protected:
  bool is_full_i() override;
  bool is_empty_i() override;
  int enqueue_tail_i(ACE_Message_Block* block) override;

 private:
  /// A piece of the queue. Its bytes never move, so they can be written while others are appended.
  struct Chunk {
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::vector<std::uint32_t> m_lengths;
    std::size_t m_first = 0;  ///< index of the first length not yet done with
    bool m_bHangUp = false;   ///< the chunk is a hang-up and holds nothing else
  };

  void Append(std::span<const char> payload);
  Chunk& ChunkWithRoom(std::size_t bytes);
  void DropHeadChunk();

  Framing m_framing;
  std::deque<Chunk> m_chunks;
  Chunk m_spare;
  bool m_bAwaited = false;
  std::vector<std::uint32_t> m_lengths;  ///< of the lent payloads
};

}  // namespace VaroCommunicationAPI
