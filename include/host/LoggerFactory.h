// The host's logger factory.
#pragma once

#include <SorvexCommonExport.h>
#include <host/Log.h>

#include <memory>
#include <string>

namespace WindowsAgentCommon {

class SORVEXCOMMON_EXPORT LoggerFactory {
 public:
  /// Returns the logger of this name. It writes to the current sink and keeps that sink alive. Never fails. Any thread.
  static Log GetLogger(const std::string& name);

  /// Sets the sink of loggers fetched from now on and returns the previous one. A null sink discards. Before the first
  /// call, records of level Info and above go to standard error. Any thread.
  static std::shared_ptr<ILogSink> SetSink(std::shared_ptr<ILogSink> sink);
};

}  // namespace WindowsAgentCommon
