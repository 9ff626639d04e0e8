// The text in which positions are kept.
#pragma once

#include <collect/platform/File.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace sorvex::collect {

/// The start of a file, to see whether it is still the same.
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
  std::int64_t seenTime = 0;  ///< when the file was there last, in seconds since 1970
};

struct Positions {
  std::vector<std::string> patterns;  ///< inputs whose files are known: what is new there is read whole
  std::vector<Place> places;
};

/// One line each, with a check of its own, between a line that names the version and one that says that all is there.
std::string WritePositions(const Positions& positions);

/// Adds what `text` holds. Returns false when a line is not what it should be, or missing; the
/// others are taken.
bool ReadPositions(std::string_view text, Positions& positions);

}  // namespace sorvex::collect
