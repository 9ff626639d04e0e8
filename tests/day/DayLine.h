// The lines that script/day has an agent deliver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::day {

/// Identifies a line by its file's name and its number in that file, counted from 1.
struct DayLine {
  std::string_view name;
  std::uint64_t number = 0;
};

/// Without a line feed: the name, the number, and a filler derived from them.
std::string MakeLine(const DayLine& line);

/// Returns nothing for a text that `MakeLine` does not produce. The name is a part of `text`.
std::optional<DayLine> ParseLine(std::string_view text);

}  // namespace sorvex::day
