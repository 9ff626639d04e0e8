// The text format of positions.
#pragma once

#include <collect/platform/File.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::collect {

/// The start of a file, to check whether it is still the same.
struct Head {
  static constexpr std::size_t maxLength = 1024;

  std::uint64_t length = 0;
  std::uint64_t hash = 0;
};

/// How far a file has been delivered.
struct Place {
  FileIdentity identity;
  std::filesystem::path path;  ///< where the file was last
  std::uint64_t position = 0;
  Head head;
  bool isRotated = false;     ///< had another name before
  std::int64_t seenTime = 0;  ///< when the file was last there, in seconds since 1970
};

struct Positions {
  std::vector<std::string> patterns;  ///< inputs whose files are known: new ones are read whole
  std::vector<Place> places;
};

/// The text of positions: one line each, with its own checksum, between a line with the version and one that marks the
/// end.
class PositionsText {
 public:
  PositionsText();

  void AddPattern(std::string_view pattern);

  /// Writes `seenTime` instead of the place's own.
  void AddPlace(const Place& place, std::int64_t seenTime);

  /// To be called once, after everything has been added.
  std::string Finish();

 private:
  void AddNumber(std::uint64_t number);
  void AddEscaped(std::string_view text);
  void EndLine(std::size_t begin);

  std::string m_text;
};

/// Adds the content of `text`. Returns false when a line is damaged or missing; the others are used.
bool ReadPositions(std::string_view text, Positions& positions);

}  // namespace sorvex::collect
