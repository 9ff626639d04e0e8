#include "sockets/PayloadQueue.h"

#include <algorithm>
#include <new>
#include <numeric>
#include <thread>
#include <utility>

namespace VaroCommunicationAPI {

namespace {

/// How often to try a held lock before giving way to other threads, and how often to give way before sleeping: it is
/// held only for an instant, and sleeping and waking take a hundred times as long. Its holder may wait for a processor.
constexpr int looksAtLock = 100;
constexpr int yieldsForLock = 10;

}  // namespace

QueueGuard::QueueGuard(ACE_SYNCH_MUTEX& mutex) : m_mutex(mutex) {
  for (int yields = 0; yields < yieldsForLock; ++yields) {
    for (int looks = 0; looks < looksAtLock; ++looks) {
      if (m_mutex.tryacquire() == 0) return;
    }
    std::this_thread::yield();
  }
  m_mutex.acquire();
}

ACE_Time_Value_T<ACE_Monotonic_Time_Policy> DeadlineAfter(std::chrono::milliseconds duration) {
  auto deadline = ACE_Monotonic_Time_Policy()();
  deadline += ACE_Time_Value(std::chrono::duration_cast<std::chrono::microseconds>(duration));
  return deadline;
}

bool PayloadQueue::is_full_i() {
  // Any mark above 0 has room for one payload.
  return cur_bytes_ >= high_water_mark_ || cur_count_ >= std::max<std::size_t>(high_water_mark_ / bytesPerPayload, 1);
}

bool PayloadQueue::is_empty_i() { return m_chunks.empty(); }

bool PayloadQueue::Put(std::span<const char> payload, std::chrono::milliseconds patience) {
  const QueueGuard guard(lock_);
  if (state_ != ACTIVATED) return false;
  const bool bWait = is_full_i();
  if (bWait) {
    auto deadline = DeadlineAfter(patience);
    // There may be room although the wait has timed out: it may even have consumed the signal that tells so, which is
    // passed on below.
    if (wait_not_full_cond(&deadline) == -1 && (state_ != ACTIVATED || is_full_i())) return false;
  }
  try {
    Append(payload);
  } catch (const std::bad_alloc&) {
    return false;
  }
  // Each wakes the next: all at once would only contend for the lock.
  if (bWait && !is_full_i()) not_full_cond_.signal();
  return true;
}

int PayloadQueue::enqueue_tail_i(ACE_Message_Block* block) {
  if (block->msg_type() == ACE_Message_Block::MB_HANGUP) {
    m_chunks.emplace_back().m_bHangUp = true;
    signal_dequeue_waiters();
  } else {
    Append({block->rd_ptr(), block->length()});
  }
  block->release();
  return static_cast<int>(cur_count_);
}

bool PayloadQueue::HangUp() {
  if (state_ == DEACTIVATED) return false;
  m_chunks.emplace_back().m_bHangUp = true;
  // From then on only what is in the queue comes out. Wakes all who wait.
  constexpr int pulse = 1;
  deactivate_i(pulse);
  return true;
}

void PayloadQueue::Append(std::span<const char> payload) {
  const std::size_t framed = payload.size() + m_framing.AddedBytes(payload.size());
  Chunk& chunk = ChunkWithRoom(framed);
  m_framing.Write(payload, chunk.m_bytes.get() + chunk.m_end);
  chunk.m_lengths.push_back(static_cast<std::uint32_t>(payload.size()));
  chunk.m_end += framed;
  ++cur_count_;
  cur_bytes_ += payload.size();
  cur_length_ += payload.size();
  // A busy send thread finds it by itself.
  if (std::exchange(m_bAwaited, false)) signal_dequeue_waiters();
}

PayloadQueue::Chunk& PayloadQueue::ChunkWithRoom(std::size_t bytes) {
  if (!m_chunks.empty()) {
    Chunk& last = m_chunks.back();
    if (!last.m_bHangUp && last.m_capacity - last.m_end >= bytes) return last;
  }
  Chunk chunk = std::exchange(m_spare, {});
  if (chunk.m_capacity < bytes) {
    const std::size_t capacity = std::max(bytes, chunkBytes);
    chunk.m_bytes = std::make_unique_for_overwrite<char[]>(capacity);
    chunk.m_capacity = capacity;
  }
  // No chunk is ever without a payload.
  chunk.m_lengths.reserve(1);
  return m_chunks.emplace_back(std::move(chunk));
}

PayloadQueue::Head PayloadQueue::Await(std::chrono::milliseconds patience, FramedPayloads& payloads) {
  const QueueGuard guard(lock_);
  if (m_chunks.empty() && state_ != DEACTIVATED) {
    auto deadline = DeadlineAfter(patience);
    do {
      m_bAwaited = true;
    } while (not_empty_cond_.wait(&deadline) != -1 && m_chunks.empty() && state_ != DEACTIVATED);
    m_bAwaited = false;
  }
  if (state_ == DEACTIVATED) return Head::Closed;
  if (m_chunks.empty()) return Head::Nothing;
  Chunk& chunk = m_chunks.front();
  if (chunk.m_bHangUp) {
    m_chunks.pop_front();
    return Head::HangUp;
  }
  m_lengths.assign(chunk.m_lengths.begin() + static_cast<std::ptrdiff_t>(chunk.m_first), chunk.m_lengths.end());
  payloads = {{chunk.m_bytes.get() + chunk.m_begin, chunk.m_end - chunk.m_begin}, m_lengths};
  const std::size_t bytes = std::accumulate(m_lengths.begin(), m_lengths.end(), std::size_t{0});
  cur_count_ -= m_lengths.size();
  cur_bytes_ -= bytes;
  cur_length_ -= bytes;
  if (cur_bytes_ <= low_water_mark_) not_full_cond_.signal();
  return Head::Payloads;
}

void PayloadQueue::Remove(std::size_t payloads) {
  const QueueGuard guard(lock_);
  Chunk& chunk = m_chunks.front();
  for (std::size_t i = 0; i < payloads; ++i) chunk.m_begin += m_lengths[i] + m_framing.AddedBytes(m_lengths[i]);
  chunk.m_first += payloads;
  const std::size_t bytesLeft =
      std::accumulate(m_lengths.begin() + static_cast<std::ptrdiff_t>(payloads), m_lengths.end(), std::size_t{0});
  cur_count_ += m_lengths.size() - payloads;
  cur_bytes_ += bytesLeft;
  cur_length_ += bytesLeft;
  // Payloads without a byte may be left.
  if (chunk.m_first == chunk.m_lengths.size()) DropHeadChunk();
}

void PayloadQueue::DropHeadChunk() {
  Chunk chunk = std::move(m_chunks.front());
  m_chunks.pop_front();
  // A chunk made for a long payload is not kept.
  if (chunk.m_capacity != chunkBytes) return;
  chunk.m_begin = chunk.m_end = chunk.m_first = 0;
  chunk.m_lengths.clear();
  m_spare = std::move(chunk);
}

PayloadQueue::Given PayloadQueue::GiveUp() {
  deactivate_i();
  const Given given{cur_count_, cur_bytes_};
  m_chunks.clear();
  m_spare = {};
  cur_count_ = cur_bytes_ = cur_length_ = 0;
  return given;
}

}  // namespace VaroCommunicationAPI
