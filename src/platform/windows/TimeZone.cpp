#include "platform/windows/TimeZoneInformation.h"

namespace VaroCommunicationAPI::Platform {

TimeZone TimeZoneInEffect(DWORD kind, const TIME_ZONE_INFORMATION& information) {
  switch (kind) {
    case TIME_ZONE_ID_INVALID: return {L"UTC", 0, false};
    case TIME_ZONE_ID_DAYLIGHT:
      return {information.DaylightName, static_cast<int>(information.Bias + information.DaylightBias), true};
    case TIME_ZONE_ID_STANDARD:
      return {information.StandardName, static_cast<int>(information.Bias + information.StandardBias), false};
    // A zone without daylight time has no bias of its own for standard time.
    default: return {information.StandardName, static_cast<int>(information.Bias), false};
  }
}

TimeZone CurrentTimeZone() {
  TIME_ZONE_INFORMATION information{};
  const DWORD kind = GetTimeZoneInformation(&information);
  return TimeZoneInEffect(kind, information);
}

}  // namespace VaroCommunicationAPI::Platform
