#include "platform/LocalTime.h"

namespace WindowsAgentCommon {

bool GetLocalTime(std::time_t time, std::tm& local) { return localtime_s(&local, &time) == 0; }

}  // namespace WindowsAgentCommon
