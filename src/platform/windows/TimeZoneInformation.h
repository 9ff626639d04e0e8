// Converts the system's description of a time zone to ours.
#pragma once

#include "platform/TimeZone.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

/// `kind` is what `GetTimeZoneInformation` returned with `information`.
TimeZone TimeZoneInEffect(DWORD kind, const TIME_ZONE_INFORMATION& information);

}  // namespace VaroCommunicationAPI::Platform
