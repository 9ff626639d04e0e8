// The host service that counts what the agent does.
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>
#include <string>

namespace WindowsAgentCommon {

/// Any thread, several at once.
class SORVEXCOMMON_EXPORT IStatisticsServer {
 public:
  virtual ~IStatisticsServer();

  /// Adds `amount` to the counter `name`, which starts at 0.
  virtual void Add(const std::string& name, std::uint64_t amount) = 0;

  /// Value of the counter, 0 if nothing was added.
  virtual std::uint64_t GetValue(const std::string& name) const = 0;

  static const char* GetServiceName() { return "IStatisticsServer"; }
};

}  // namespace WindowsAgentCommon
