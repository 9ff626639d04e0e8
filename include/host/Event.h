// One collected event, on its way to a destination.
#pragma once

#include <chrono>
#include <string>

namespace WindowsAgentCommon {

/// Texts are UTF-8 if their source was; a builder must cope with any bytes.
struct Event {
  std::chrono::system_clock::time_point m_time;
  int m_level = 6;          ///< syslog severity, 0 (emergency) to 7 (debug)
  std::string m_strSource;  ///< what produced it: a log file, a program
  std::string m_strHost;    ///< where it happened
  std::string m_strText;    ///< what was logged
};

}  // namespace WindowsAgentCommon
