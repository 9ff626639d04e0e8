#include "StatisticsServer.h"

#include <mutex>

namespace WindowsAgentCommon {

StatisticsServer::StatisticsServer() = default;

StatisticsServer::~StatisticsServer() = default;

void StatisticsServer::Add(const std::string& name, std::uint64_t amount) {
  {
    const std::shared_lock lock(m_mutex);
    const auto counter = m_counters.find(name);
    if (counter != m_counters.end()) {
      counter->second.fetch_add(amount, std::memory_order_relaxed);
      return;
    }
  }
  const std::unique_lock lock(m_mutex);
  m_counters[name].fetch_add(amount, std::memory_order_relaxed);
}

std::uint64_t StatisticsServer::GetValue(const std::string& name) const {
  const std::shared_lock lock(m_mutex);
  const auto counter = m_counters.find(name);
  return counter == m_counters.end() ? 0 : counter->second.load(std::memory_order_relaxed);
}

}  // namespace WindowsAgentCommon
