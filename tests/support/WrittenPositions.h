// The text of positions that a test has made.
#pragma once

#include <collect/Positions.h>

#include <string>

namespace sorvex::test {

inline std::string WrittenPositions(const collect::Positions& positions) {
  collect::PositionsText text;
  for (const std::string& pattern : positions.patterns) text.AddPattern(pattern);
  for (const collect::Place& place : positions.places) text.AddPlace(place, place.seenTime);
  return text.Finish();
}

}  // namespace sorvex::test
