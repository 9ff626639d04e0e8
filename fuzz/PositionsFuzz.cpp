// The file with the positions of followed files.
#include "support/WrittenPositions.h"

#include <collect/Positions.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace sorvex::collect;
  Positions positions;
  ReadPositions({reinterpret_cast<const char*>(data), size}, positions);
  // What was accepted can be written and read again.
  Positions again;
  if (!ReadPositions(sorvex::test::WrittenPositions(positions), again)) std::abort();
  if (again.patterns != positions.patterns || again.places.size() != positions.places.size()) std::abort();
  for (std::size_t index = 0; index < positions.places.size(); ++index) {
    const Place& place = positions.places[index];
    if (place.head.length > Head::maxLength || place.path.empty()) std::abort();
    if (again.places[index].position != place.position || again.places[index].path != place.path) std::abort();
  }
  return 0;
}
