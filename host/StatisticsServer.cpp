#include "StatisticsServer.h"

namespace WindowsAgentCommon {

StatisticsServer::StatisticsServer() = default;

StatisticsServer::~StatisticsServer() = default;

void StatisticsServer::Add(const std::string& name, std::uint64_t amount) {
  const std::lock_guard lock(m_mutex);
  m_counters[name] += amount;
}

std::uint64_t StatisticsServer::GetValue(const std::string& name) const {
  const std::lock_guard lock(m_mutex);
  const auto counter = m_counters.find(name);
  return counter == m_counters.end() ? 0 : counter->second;
}

}  // namespace WindowsAgentCommon
