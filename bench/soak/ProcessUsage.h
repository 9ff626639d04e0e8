// What this process uses.
#pragma once

#include <cstddef>

namespace sorvex::soak {

struct ProcessUsage {
  std::size_t residentBytes = 0;
  std::size_t openFiles = 0;
};

ProcessUsage MeasureProcess();

}  // namespace sorvex::soak
