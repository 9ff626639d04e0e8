// The reference statistics server: counters in memory.
#pragma once

#include <host/IStatisticsServer.h>

#include <ace/Service_Object.h>

#include <atomic>
#include <map>
#include <shared_mutex>

namespace WindowsAgentCommon {

/// Counters wrap at 2^64 and live as long as the service.
class StatisticsServer : public ACE_Service_Object, public IStatisticsServer {
 public:
  StatisticsServer();
  ~StatisticsServer() override;

  void Add(const std::string& name, std::uint64_t amount) override;
  std::uint64_t GetValue(const std::string& name) const override;

 private:
  /// Guards the map's shape; the counters themselves are added to under a shared lock.
  mutable std::shared_mutex m_mutex;
  std::map<std::string, std::atomic<std::uint64_t>> m_counters;
};

}  // namespace WindowsAgentCommon
