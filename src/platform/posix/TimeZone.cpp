#include "platform/TimeZone.h"

#include <host/Text.h>

#include <ctime>

namespace VaroCommunicationAPI::Platform {

TimeZone CurrentTimeZone() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  // Unlike localtime, this function need not read the zone itself.
  tzset();
  if (localtime_r(&now, &local) == nullptr) return {L"UTC", 0, false};
  return {WindowsAgentCommon::Utf8ToWide(local.tm_zone), static_cast<int>(-local.tm_gmtoff / 60), local.tm_isdst > 0};
}

}  // namespace VaroCommunicationAPI::Platform
