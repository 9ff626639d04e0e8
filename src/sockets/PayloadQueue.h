// The queue between those who send payloads and the thread that writes them.
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

/// Payloads as they stand on the wire, one behind the other, and the length of each without its framing.
struct FramedPayloads {
  std::span<const char> m_bytes;
  std::span<const std::uint32_t> m_lengths;
};

/// ACE's message queue with a store of its own: payloads lie framed in large chunks, from which the send thread writes
/// them, so that a payload costs a copy and nothing else. A payload leaves the queue when it is done with.
///
/// There is a second bound: short payloads take more memory than their own bytes, so a queue is also full when it holds
/// a sixteenth of its high water mark in payloads. A hang-up finds room always. Blocks go in by `enqueue_tail` alone
/// and none come out.
class PayloadQueue : public ACE_Message_Queue<ACE_MT_SYNCH, ACE_Monotonic_Time_Policy> {
 public:
  static constexpr std::size_t bytesPerPayload = 16;

  /// Bytes that `Await` gives at most, unless they are of one payload alone.
  static constexpr std::size_t chunkBytes = 64 * 1024;

  /// What stands at the head.
  enum class Head {
    Payloads,
    HangUp,   ///< it is taken out
    Nothing,  ///< for as long as was waited
    Closed    ///< nothing more can go in or out
  };

  /// For the payloads that go in from then on.
  void SetFraming(const Framing& framing) { m_framing = framing; }

  /// Appends a payload, waiting for room for at most `patience`. Returns false when there was none, or the queue is
  /// closed.
  bool Put(std::span<const char> payload, std::chrono::milliseconds patience);

  /// Appends a hang-up. Returns whether the queue is open.
  bool PutHangUp();

  /// Waits for at most `patience` until something stands at the head. Payloads there are lent until `Remove`; they keep
  /// their place, but count no more. The send thread only.
  Head Await(std::chrono::milliseconds patience, FramedPayloads& payloads);

  /// Takes back what `Await` has lent, but for the first `payloads` of them, which are done with. Finds room always.
  void Remove(std::size_t payloads);

  /// What was given up.
  struct Given {
    std::size_t m_payloads = 0;
    std::size_t m_bytes = 0;
  };

  /// Closes the queue and empties it.
  Given GiveUp();

 protected:
  bool is_full_i() override;
  bool is_empty_i() override;
  int enqueue_tail_i(ACE_Message_Block* block) override;

 private:
  /// A piece of the queue. Its bytes never move, so that they can be written while others are appended.
  struct Chunk {
    std::unique_ptr<char[]> m_bytes;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::vector<std::uint32_t> m_lengths;
    std::size_t m_first = 0;  ///< of the lengths; those before are done with
    bool m_bHangUp = false;   ///< it is one, and holds nothing else
  };

  void Append(std::span<const char> payload);
  Chunk& ChunkWithRoom(std::size_t bytes);
  void DropHeadChunk();

  Framing m_framing;
  std::deque<Chunk> m_chunks;
  Chunk m_spare;
  bool m_bAwaited = false;
  std::vector<std::uint32_t> m_lengths;  ///< of the payloads that are lent
};

}  // namespace VaroCommunicationAPI
