// The time zone of the machine.
#pragma once

#include <string>

namespace VaroCommunicationAPI::Platform {

struct TimeZone {
  std::wstring m_strName;    ///< of the zone as it is now, standard or daylight
  int m_nBiasMinutes = 0;    ///< to be added to local time to give UTC
  bool m_bDaylight = false;  ///< whether daylight saving time is in effect
};

/// Returns the zone in effect now.
TimeZone CurrentTimeZone();

}  // namespace VaroCommunicationAPI::Platform
