#include <host/TimeConversion.h>

namespace WindowsAgentCommon {

std::int64_t ConvertFiletimeToUnixEpoch(std::uint64_t filetime) {
  constexpr std::uint64_t INTERVALS_PER_SECOND = 10'000'000;
  constexpr std::int64_t SECONDS_FROM_1601_TO_1970 = 11'644'473'600;
  // Rounding before the subtraction rounds down on both sides of 1970.
  return static_cast<std::int64_t>(filetime / INTERVALS_PER_SECOND) - SECONDS_FROM_1601_TO_1970;
}

}  // namespace WindowsAgentCommon
