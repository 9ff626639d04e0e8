// Cutting bytes into lines.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace sorvex::collect {

struct Line {
  std::string_view text;  ///< without its line end
  std::size_t size = 0;   ///< bytes consumed, its line end included
  bool isPiece = false;   ///< more of the same line follows, since it is too long
};

/// How many bytes show whether a line of `maxBytes` has ended.
constexpr std::size_t BytesToTell(std::size_t maxBytes) { return maxBytes + 2; }

/// Returns the first line of `bytes`, or nothing when it is incomplete. A carriage return before the line feed belongs
/// to the line end. A line over `maxBytes` is cut, not inside a UTF-8 character. With `isEnd` nothing follows `bytes`,
/// so a last line without a line feed counts too.
std::optional<Line> FirstLine(std::string_view bytes, std::size_t maxBytes, bool isEnd);

}  // namespace sorvex::collect
