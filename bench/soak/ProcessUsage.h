// What this process uses.
#pragma once

#include <cstddef>

namespace sorvex::soak {

struct ProcessUsage {
  std::size_t residentBytes = 0;
  std::size_t openFiles = 0;  ///< on Windows, handles of any kind; Wine counts none
};

ProcessUsage MeasureProcess();

}  // namespace sorvex::soak
