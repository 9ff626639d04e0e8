#include "ProcessUsage.h"

#include <windows.h>

#include <psapi.h>

#include <system_error>

namespace sorvex::soak {

ProcessUsage MeasureProcess() {
  PROCESS_MEMORY_COUNTERS memory{};
  DWORD handles = 0;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &memory, sizeof memory) ||
      !GetProcessHandleCount(GetCurrentProcess(), &handles)) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "the process's usage");
  }
  return {memory.WorkingSetSize, handles};
}

}  // namespace sorvex::soak
