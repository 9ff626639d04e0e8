#include "platform/TimeZone.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

TimeZone CurrentTimeZone() {
  TIME_ZONE_INFORMATION information{};
  const DWORD kind = GetTimeZoneInformation(&information);
  if (kind == TIME_ZONE_ID_INVALID) return {L"UTC", 0, false};
  const LONG bias = information.Bias;
  if (kind == TIME_ZONE_ID_DAYLIGHT)
    return {information.DaylightName, static_cast<int>(bias + information.DaylightBias), true};
  // A zone without daylight time has no bias of its own for standard time.
  return {information.StandardName,
          static_cast<int>(kind == TIME_ZONE_ID_STANDARD ? bias + information.StandardBias : bias), false};
}

}  // namespace VaroCommunicationAPI::Platform
