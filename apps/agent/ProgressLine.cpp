#include <ProgressLine.h>

#include <algorithm>
#include <limits>

namespace sorvex::agent {

ProgressLine::ProgressLine(const std::vector<std::unique_ptr<Outlet>>& outlets, const Counter& eventsRead)
    : m_outlets(outlets), m_eventsRead(eventsRead), m_line([this] { return Text(); }) {}

/// With several destinations: the position of the last one, and the sum of what waits and failed at all.
std::string ProgressLine::Text() const {
  std::uint32_t sent = std::numeric_limits<std::uint32_t>::max();
  std::uint64_t queued = 0;
  std::uint64_t refused = 0;
  for (const std::unique_ptr<Outlet>& outlet : m_outlets) {
    sent = std::min(sent, outlet->Socket().GetMessagesSent());
    queued += outlet->Socket().GetQueueSize();
    refused += outlet->Refused();
  }
  return std::to_string(m_eventsRead) + " events read, " + std::to_string(sent) + " sent, " + std::to_string(queued) +
         " bytes queued, " + std::to_string(refused) + " refusals";
}

}  // namespace sorvex::agent
