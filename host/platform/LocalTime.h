// The machine's local time.
#pragma once

#include <ctime>

namespace WindowsAgentCommon {

/// Splits `time` into parts in the process's time zone, with the offset in effect at that time. Returns false when the
/// system cannot.
bool GetLocalTime(std::time_t time, std::tm& local);

}  // namespace WindowsAgentCommon
