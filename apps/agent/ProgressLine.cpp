#include <ProgressLine.h>

#include <platform/Platform.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>
#include <stop_token>

namespace sorvex::agent {

using namespace std::chrono_literals;

ProgressLine::ProgressLine(const std::vector<std::unique_ptr<Outlet>>& outlets,
                           const std::atomic<std::uint64_t>& eventsRead)
    : m_outlets(outlets), m_eventsRead(eventsRead) {
  if (!IsErrorTerminal()) return;
  m_thread = std::jthread([this](std::stop_token stop) {
    std::unique_lock lock(m_mutex);
    while (!m_wakeUp.wait_for(lock, stop, 500ms, [&stop] { return stop.stop_requested(); })) Show();
    Show();
    std::fputc('\n', stderr);
  });
}

/// Of several destinations it tells how far the last one is, and what waits and failed at all of them.
void ProgressLine::Show() const {
  std::uint32_t sent = std::numeric_limits<std::uint32_t>::max();
  std::uint64_t queued = 0;
  std::uint64_t refused = 0;
  for (const std::unique_ptr<Outlet>& outlet : m_outlets) {
    sent = std::min(sent, outlet->Socket().GetMessagesSent());
    queued += outlet->Socket().GetQueueSize();
    refused += outlet->Refused();
  }
  std::fprintf(stderr, "\r%llu events read, %lu sent, %llu bytes queued, %llu refusals   ",
               static_cast<unsigned long long>(m_eventsRead.load()), static_cast<unsigned long>(sent),
               static_cast<unsigned long long>(queued), static_cast<unsigned long long>(refused));
  std::fflush(stderr);
}

}  // namespace sorvex::agent
