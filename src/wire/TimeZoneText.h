// The time zone as sent to the configuration server.
#pragma once

#include "platform/TimeZone.h"

#include <string>

namespace SSLConfigServerProto {

/// Returns, in UTF-8, "<name> (UTC + <minutes>) Daylight Savings is in effect", with the sign of the zone and "is not"
/// in standard time. Minutes, deliberately, and a zone on UTC has the plus sign.
std::string TimeZoneText(const VaroCommunicationAPI::Platform::TimeZone& zone);

}  // namespace SSLConfigServerProto
