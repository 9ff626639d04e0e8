// The host's logger factory.
#pragma once

#include <SorvexCommonExport.h>
#include <host/Log.h>

#include <memory>
#include <string>

namespace WindowsAgentCommon {

class SORVEXCOMMON_EXPORT LoggerFactory {
 public:
  /// Returns the logger of this name. It writes to the sink that is set at this moment and keeps that sink alive.
  /// Never fails. Any thread.
  static Log GetLogger(const std::string& name);

  /// Sets where loggers fetched from now on write, and returns what was set before. A null sink discards. Before the
  /// first call, records of level Info and above go to standard error. Any thread.
  static std::shared_ptr<ILogSink> SetSink(std::shared_ptr<ILogSink> sink);
};

}  // namespace WindowsAgentCommon
