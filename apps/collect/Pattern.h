// Names with wildcards.
#pragma once

#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

namespace sorvex::collect {

/// Whether a file's or folder's name is one that `pattern` stands for: `*` any characters, `?` one, `[a-z]` one of
/// these, `[!a-z]` one of the others. A name that begins with a full stop needs one in the pattern. A bracket without
/// its end means itself.
bool MatchesName(const std::filesystem::path::string_type& pattern, const std::filesystem::path::string_type& name);

/// The path of a file in which names may hold wildcards.
class Pattern {
 public:
  struct Listing {
    std::vector<std::filesystem::path> names;  ///< what the pattern stands for now; of any kind, links not followed
    /// Where other such names would show up.
    std::vector<std::filesystem::path> folders;
    std::vector<std::pair<std::filesystem::path, std::error_code>> failures;  ///< folders that could not be read
    bool lacksFolder = false;                                                 ///< a folder that has to come first
  };

  /// `path` is absolute.
  explicit Pattern(const std::filesystem::path& path);

  /// Adds what there is.
  void List(Listing& listing) const;

  /// Whether a path is one that the pattern stands for, or a folder on the way to such a one.
  bool Concerns(const std::filesystem::path& path) const;

  /// Whether the pattern stands for that very path.
  bool Matches(const std::filesystem::path& path) const;

 private:
  void ListBelow(const std::filesystem::path& folder, std::size_t depth, Listing& listing) const;
  bool MatchesParts(const std::filesystem::path& path, bool isWhole) const;

  std::filesystem::path m_root;
  std::vector<std::filesystem::path::string_type> m_parts;
};

}  // namespace sorvex::collect
