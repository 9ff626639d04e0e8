// How a benchmark summarises its measurements.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

namespace sorvex::bench {

/// Returns the value below which `share` (0 to 1) of the values lie, interpolating between two. `values` must not be
/// empty.
inline double Quantile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  const double position = share * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, values.size() - 1);
  return std::lerp(values[below], values[above], position - static_cast<double>(below));
}

inline double Median(std::vector<double> values) { return Quantile(std::move(values), 0.5); }

}  // namespace sorvex::bench
