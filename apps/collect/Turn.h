// One source's share of a `Collect`.
#pragma once

#include <cstddef>

namespace sorvex::collect {

struct Turn {
  enum class End {
    Nothing,  ///< nothing is there
    Done,     ///< something was passed on or checked; there may be more
    Refused,  ///< the sink refused a line
  };

  End end = End::Nothing;
  std::size_t bytes = 0;  ///< passed on
};

/// The approximate amount passed on in one turn.
constexpr std::size_t turnBytes = 256 * 1024;

}  // namespace sorvex::collect
