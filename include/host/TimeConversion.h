// Conversions between time scales.
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>

namespace WindowsAgentCommon {

/// Converts 100 ns intervals since 1601-01-01 00:00 UTC to whole seconds since 1970-01-01 00:00 UTC, rounded down;
/// times before 1970 are negative.
SORVEXCOMMON_EXPORT std::int64_t ConvertFiletimeToUnixEpoch(std::uint64_t filetime);

}  // namespace WindowsAgentCommon
