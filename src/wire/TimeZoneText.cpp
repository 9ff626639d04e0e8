#include "wire/TimeZoneText.h"

#include <host/Log.h>

namespace SSLConfigServerProto {

std::string TimeZoneText(const VaroCommunicationAPI::Platform::TimeZone& zone) {
  const char* const daylight = zone.m_bDaylight ? "is" : "is not";
  if (zone.m_nBiasMinutes < 1) {
    return WindowsAgentCommon::Format("%s (UTC + %d) Daylight Savings %s in effect", zone.m_strName,
                                      -zone.m_nBiasMinutes, daylight);
  }
  return WindowsAgentCommon::Format("%s (UTC - %d) Daylight Savings %s in effect", zone.m_strName, zone.m_nBiasMinutes,
                                    daylight);
}

}  // namespace SSLConfigServerProto
