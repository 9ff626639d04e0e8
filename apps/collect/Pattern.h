// Names with wildcards.
#pragma once

#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

namespace sorvex::collect {

/// Whether `pattern` matches the name of a file or folder: `*` any characters, `?` one, `[a-z]` one of these, `[!a-z]`
/// one of the others. A name that begins with a full stop needs one in the pattern. A bracket without its end stands
/// for itself.
bool MatchesName(const std::filesystem::path::string_type& pattern, const std::filesystem::path::string_type& name);

/// The path of a file in which names may hold wildcards.
class Pattern {
 public:
  struct Listing {
    std::vector<std::filesystem::path> names;  ///< what the pattern matches now; of any kind, links not followed
    /// Where further such names would appear.
    std::vector<std::filesystem::path> folders;
    std::vector<std::pair<std::filesystem::path, std::error_code>> failures;  ///< folders that could not be read
    bool lacksFolder = false;                                                 ///< a folder that must appear first
  };

  /// `path` is absolute.
  explicit Pattern(const std::filesystem::path& path);

  /// Adds what exists.
  void List(Listing& listing) const;

  /// Whether the pattern matches a path, or the path is a folder on the way to a match.
  bool Concerns(const std::filesystem::path& path) const;

  /// Whether the pattern matches exactly this path.
  bool Matches(const std::filesystem::path& path) const;

 private:
  void ListBelow(const std::filesystem::path& folder, std::size_t depth, Listing& listing) const;
  bool MatchesParts(const std::filesystem::path& path, bool isWhole) const;

  std::filesystem::path m_root;
  std::vector<std::filesystem::path::string_type> m_parts;
};

}  // namespace sorvex::collect
