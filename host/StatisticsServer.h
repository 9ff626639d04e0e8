// The reference statistics server: counters in memory.
#pragma once

#include <host/IStatisticsServer.h>

#include <ace/Service_Object.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace WindowsAgentCommon {

/// Counters wrap at 2^64 and live as long as the service.
class StatisticsServer : public ACE_Service_Object, public IStatisticsServer {
 public:
  StatisticsServer();
  ~StatisticsServer() override;

  void Add(const std::string& name, std::uint64_t amount) override;
  std::uint64_t GetValue(const std::string& name) const override;

 private:
  /// Not std::shared_mutex: that of mingw-w64 has left all threads waiting under Wine.
  mutable std::mutex m_mutex;
  std::map<std::string, std::uint64_t> m_counters;
};

}  // namespace WindowsAgentCommon
