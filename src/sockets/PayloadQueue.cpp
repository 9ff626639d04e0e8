#include "sockets/PayloadQueue.h"

#include <ace/Guard_T.h>

#include <algorithm>

namespace VaroCommunicationAPI {

bool PayloadQueue::is_full_i() {
  // A mark below the size of one payload bounds the bytes alone.
  return cur_bytes_ >= high_water_mark_ || cur_count_ >= std::max<std::size_t>(high_water_mark_ / bytesPerPayload, 1);
}

int PayloadQueue::PutBack(ACE_Message_Block* block) {
  const ACE_Guard<ACE_SYNCH_MUTEX> guard(lock_);
  return state_ == DEACTIVATED ? -1 : enqueue_head_i(block);
}

bool PayloadQueue::PutHangUp() {
  auto* const block = new ACE_Message_Block(0, ACE_Message_Block::MB_HANGUP);
  {
    const ACE_Guard<ACE_SYNCH_MUTEX> guard(lock_);
    if (state_ != DEACTIVATED && enqueue_tail_i(block) != -1) return true;
  }
  block->release();
  return false;
}

bool PayloadQueue::IsClosed() { return state() == DEACTIVATED; }

}  // namespace VaroCommunicationAPI
