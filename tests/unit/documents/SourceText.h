// C++ sources as a test sees them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::test {

/// A parsed source.
struct SourceText {
  /// Without comments; each run of adjacent string literals is replaced by its number between double quotes.
  std::string code;
  /// The text of those runs, by their numbers.
  std::vector<std::string> literals;
};

SourceText TakeApart(const std::string& source);

/// A whole file, which must exist.
std::string ReadWhole(const std::filesystem::path& file);

/// The files below the folder that end in .cpp or .h.
std::vector<std::filesystem::path> SourcesBelow(const std::filesystem::path& folder);

}  // namespace sorvex::test
