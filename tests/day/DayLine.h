// The lines that script/day has an agent deliver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::day {

/// Which line a text is. `name` is that of the file, and the numbers of a file's lines begin with 1.
struct DayLine {
  std::string_view name;
  std::uint64_t number = 0;
};

/// Without a line feed: the name, the number, and a filler that follows from it.
std::string MakeLine(const DayLine& line);

/// Returns nothing for a text that `MakeLine` does not make. The name is a part of `text`.
std::optional<DayLine> ParseLine(std::string_view text);

}  // namespace sorvex::day
