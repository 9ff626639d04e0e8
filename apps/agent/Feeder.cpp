#include <Feeder.h>

#include <LineReader.h>
#include <platform/Platform.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace sorvex::agent {
namespace {

/// How far one destination may be behind the others, in addition to its socket's queue.
constexpr std::size_t maxWaitingBytes = 4 * 1024 * 1024;

std::size_t SizeOf(const Batch& batch) { return sizeof batch + batch.lines.capacity() + batch.source.capacity(); }

}  // namespace

void RoomSignal::Notify() {
  {
    const std::lock_guard lock(m_mutex);
    m_bNotified = true;
  }
  m_changed.notify_one();
}

void RoomSignal::Wait(std::chrono::milliseconds limit) {
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, limit, [this] { return m_bNotified; });
  m_bNotified = false;
}

Feeder::Feeder(Outlet& outlet, RoomSignal& room) : m_outlet(outlet), m_room(room) {
  m_event.m_strHost = GetHostName();
  m_thread = std::thread([this] { Run(); });
}

Feeder::~Feeder() {
  End();
  m_thread.join();
}

bool Feeder::HasRoom() const {
  const std::lock_guard lock(m_mutex);
  return !m_outlet.HasGivenUp() && m_bytes < maxWaitingBytes;
}

void Feeder::Take(std::shared_ptr<const Batch> batch) {
  {
    const std::lock_guard lock(m_mutex);
    m_bytes += SizeOf(*batch);
    m_batches.push_back(std::move(batch));
  }
  m_changed.notify_one();
}

void Feeder::End() {
  {
    const std::lock_guard lock(m_mutex);
    m_bEnded = true;
  }
  m_changed.notify_one();
}

void Feeder::Run() {
  m_outlet.Open();
  m_room.Notify();
  Feed();
  m_outlet.Close();
}

void Feeder::Feed() {
  while (const std::shared_ptr<const Batch> batch = WaitForBatch()) {
    Send(*batch);
    RemoveBatch();
    m_room.Notify();
  }
}

/// Returns null at the end.
std::shared_ptr<const Batch> Feeder::WaitForBatch() {
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [this] { return m_bEnded || !m_batches.empty(); });
  return m_batches.empty() ? nullptr : m_batches.front();
}

void Feeder::Send(const Batch& batch) {
  m_event.m_strSource = batch.source;
  m_event.m_time = batch.readTime;
  const Outlet::Work work(m_outlet);
  std::string_view lines = batch.lines;
  while (!lines.empty()) {
    m_event.m_strText.assign(TakeLine(lines));
    m_outlet.Send(m_event);
  }
}

void Feeder::RemoveBatch() {
  const std::lock_guard lock(m_mutex);
  m_bytes -= SizeOf(*m_batches.front());
  m_batches.pop_front();
}

}  // namespace sorvex::agent
