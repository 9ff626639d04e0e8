#include <collect/Lines.h>

#include <algorithm>

namespace sorvex::collect {
namespace {

std::string_view WithoutCarriageReturn(std::string_view text) {
  if (text.ends_with('\r')) text.remove_suffix(1);
  return text;
}

/// `maxBytes`, or slightly less so that no UTF-8 character is cut.
std::size_t PlaceToCut(std::string_view bytes, std::size_t maxBytes) {
  const auto continues = [bytes](std::size_t place) {
    return (static_cast<unsigned char>(bytes[place]) & 0xC0) == 0x80;
  };
  std::size_t place = maxBytes;
  while (place > 0 && maxBytes - place < 4 && continues(place)) --place;
  return place == 0 || continues(place) ? maxBytes : place;
}

}  // namespace

std::optional<Line> FirstLine(std::string_view bytes, std::size_t maxBytes, bool isEnd) {
  const std::string_view window = bytes.substr(0, BytesToTell(maxBytes));
  const std::size_t lineFeed = window.find('\n');
  if (lineFeed == std::string_view::npos && window.size() < BytesToTell(maxBytes) && !isEnd) return std::nullopt;

  const std::string_view text = window.substr(0, lineFeed);
  const std::string_view stripped = lineFeed == std::string_view::npos ? text : WithoutCarriageReturn(text);
  if (stripped.size() > maxBytes) {
    const std::size_t size = PlaceToCut(window, maxBytes);
    return Line{window.substr(0, size), size, true};
  }
  if (text.empty() && lineFeed == std::string_view::npos) return std::nullopt;
  return Line{stripped, std::min(text.size() + 1, window.size()), false};
}

}  // namespace sorvex::collect
