#include "DayLine.h"

#include <charconv>

namespace sorvex::day {

std::string MakeLine(const DayLine& line) {
  std::string text(line.name);
  text += ' ';
  text += std::to_string(line.number);
  text += ' ';
  text.append(20 + line.number * 7 % 101, static_cast<char>('a' + line.number % 26));
  return text;
}

std::optional<DayLine> ParseLine(std::string_view text) {
  const std::size_t nameEnd = text.find(' ');
  if (nameEnd == std::string_view::npos) return std::nullopt;
  DayLine line{text.substr(0, nameEnd)};
  const char* const first = text.data() + nameEnd + 1;
  if (std::from_chars(first, text.data() + text.size(), line.number).ec != std::errc()) return std::nullopt;
  if (line.number == 0 || MakeLine(line) != text) return std::nullopt;
  return line;
}

}  // namespace sorvex::day
