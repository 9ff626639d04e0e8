// C++ sources as a test looks at them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::test {

/// A source taken apart.
struct SourceText {
  /// Without comments; each run of adjacent string literals is its number between double quotes.
  std::string code;
  /// What those runs say, by their numbers.
  std::vector<std::string> literals;
};

SourceText TakeApart(const std::string& source);

/// All of a file, which has to be there.
std::string ReadWhole(const std::filesystem::path& file);

/// The files below the folder that end in .cpp or .h.
std::vector<std::filesystem::path> SourcesBelow(const std::filesystem::path& folder);

}  // namespace sorvex::test
