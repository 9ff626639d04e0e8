#include "platform/LocalTime.h"

namespace WindowsAgentCommon {

bool GetLocalTime(std::time_t time, std::tm& local) { return localtime_r(&time, &local) != nullptr; }

}  // namespace WindowsAgentCommon
