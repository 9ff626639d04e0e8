#include <schedule/StoppableThread.h>

#include <utility>

namespace sorvex::schedule {

void StoppableThread::Start(std::function<void()> run) { m_thread = std::jthread(std::move(run)); }

void StoppableThread::RequestStop() {
  const std::lock_guard lock(m_mutex);
  m_bMustStop = true;
  m_changed.notify_all();
}

bool StoppableThread::MustStop() const {
  const std::lock_guard lock(m_mutex);
  return m_bMustStop;
}

bool StoppableThread::WaitForStop(std::chrono::milliseconds duration) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, duration, [this] { return m_bMustStop; });
}

}  // namespace sorvex::schedule
