// The queue between those who send payloads and the thread that writes them.
#pragma once

#include <ace/Monotonic_Time_Policy.h>
#include <ace/Task.h>

#include <cstddef>

namespace VaroCommunicationAPI {

/// ACE's message queue with a second bound: short payloads take far more memory than their own bytes, so a queue is
/// also full when it holds a sixteenth of its high water mark in payloads. What goes in by `PutBack` or `PutHangUp`
/// finds room always.
class PayloadQueue : public ACE_Message_Queue<ACE_MT_SYNCH, ACE_Monotonic_Time_Policy> {
 public:
  static constexpr std::size_t bytesPerPayload = 16;

  /// Puts a block at the head, whatever the queue holds: it had its place there before. Returns -1 when the queue is
  /// closed, and the block then stays the caller's; otherwise the number of blocks.
  int PutBack(ACE_Message_Block* block);

  /// Puts a hang-up block at the tail, whatever the queue holds. Returns whether the queue is open.
  bool PutHangUp();

  /// Whether nothing more can go in or out.
  bool IsClosed();

 protected:
  bool is_full_i() override;
};

}  // namespace VaroCommunicationAPI
