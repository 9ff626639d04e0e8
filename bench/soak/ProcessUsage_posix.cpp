#include "ProcessUsage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace sorvex::soak {

ProcessUsage MeasureProcess() {
  std::size_t total = 0;
  std::size_t resident = 0;
  if (!(std::ifstream("/proc/self/statm") >> total >> resident))
    throw std::runtime_error("cannot read /proc/self/statm");
  const std::filesystem::directory_iterator files("/proc/self/fd");
  // Without the descriptor that lists them.
  const auto count = std::distance(begin(files), end(files)) - 1;
  return {resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), static_cast<std::size_t>(count)};
}

}  // namespace sorvex::soak
