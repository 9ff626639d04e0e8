// The agent's local heartbeat monitor.
#pragma once

#include <SorvexCommonExport.h>
#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <cstdint>
#include <string>

namespace WindowsAgentCommon {

/// Takes the agent's own events and passes on those that are severe enough. One thread.
class SORVEXCOMMON_EXPORT Heartbeat {
 public:
  Heartbeat();
  ~Heartbeat();
  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  /// Reads "LogMonitor.Level" (default 2), the lowest level to pass on. Always succeeds.
  void Initialize(const ParameterBlock& parameters);

  /// Passes an event on: to the log at Info, through the logger "Heartbeat.<source>", and to the statistics server if
  /// there is one. Returns false when not initialised or when `level` is below the limit.
  bool HandleEvent(int level, const std::string& source, const std::string& text);

  /// Refuses events from now on.
  void Shutdown();

 private:
  bool m_bInitialized = false;
  std::uint32_t m_level = 0;
};

}  // namespace WindowsAgentCommon
