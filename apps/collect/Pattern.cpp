#include <collect/Pattern.h>

#include <collect/platform/File.h>

#include <optional>
#include <string_view>

namespace sorvex::collect {
namespace {

using NativeString = std::filesystem::path::string_type;
using NativeView = std::basic_string_view<NativeString::value_type>;

/// Removes the first character from a non-empty name: UTF-8 or UTF-16. A unit outside any character counts as a
/// character that matches only itself.
char32_t TakeCharacter(NativeView& text) {
  constexpr std::size_t unitBits = sizeof(NativeString::value_type) * 8;
  const auto unit = [&text](std::size_t index) {
    return static_cast<char32_t>(text[index]) & ((char32_t{1} << unitBits) - 1);
  };
  constexpr char32_t noCharacter = 0x110000;
  const char32_t first = unit(0);
  if constexpr (unitBits == 16) {
    const bool isPair = first >= 0xD800 && first < 0xDC00 && text.size() > 1 && unit(1) >= 0xDC00 && unit(1) < 0xE000;
    const char32_t character = isPair ? 0x10000 + ((first - 0xD800) << 10U) + (unit(1) - 0xDC00) : first;
    text.remove_prefix(isPair ? 2 : 1);
    return character;
  } else {
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    char32_t character = length <= 1 ? first : first & (0x7FU >> length);
    bool isCharacter = length > 0 && text.size() >= length;
    for (std::size_t index = 1; isCharacter && index < length; ++index) {
      isCharacter = (unit(index) & 0xC0) == 0x80;
      character = character << 6U | (unit(index) & 0x3F);
    }
    text.remove_prefix(isCharacter ? length : 1);
    return isCharacter ? character : noCharacter + first;
  }
}

char32_t TakeFolded(NativeView& text) { return FoldCase(TakeCharacter(text)); }

/// Removes a bracket expression, without its already removed first character, from the pattern and returns whether it
/// matches `character`; nothing when it has no end.
std::optional<bool> TakeBracket(NativeView& pattern, char32_t character) {
  NativeView rest = pattern;
  bool isNegated = false;
  bool isFound = false;
  if (!rest.empty() && (rest[0] == '!' || rest[0] == '^')) {
    isNegated = true;
    rest.remove_prefix(1);
  }
  // A bracket that comes first is one of the characters.
  for (bool isFirst = true; !rest.empty(); isFirst = false) {
    const char32_t low = TakeFolded(rest);
    if (low == ']' && !isFirst) {
      pattern = rest;
      return isFound != isNegated;
    }
    char32_t high = low;
    if (rest.size() > 1 && rest[0] == '-' && rest[1] != ']') {
      rest.remove_prefix(1);
      high = TakeFolded(rest);
    }
    if (low <= character && character <= high) isFound = true;
  }
  return std::nullopt;
}

/// Removes one element from the non-empty pattern and returns whether it matches this character.
bool TakeOne(NativeView& pattern, char32_t character) {
  const char32_t wanted = TakeFolded(pattern);
  if (wanted == '?') return true;
  if (wanted == '[') {
    if (const std::optional<bool> matches = TakeBracket(pattern, character)) return *matches;
  }
  return wanted == character;
}

bool HasWildcard(const NativeString& part) {
  for (const auto unit : part) {
    if (unit == '*' || unit == '?' || unit == '[') return true;
  }
  return false;
}

}  // namespace

bool MatchesName(const NativeString& pattern, const NativeString& name) {
  NativeView wanted = pattern;
  NativeView rest = name;
  if (name.starts_with('.') && !pattern.starts_with('.')) return false;
  // Where to continue when the last `*` must match one more character.
  std::optional<NativeView> wantedAfterStar;
  NativeView restAfterStar;
  for (;;) {
    if (!wanted.empty() && wanted[0] == '*') {
      wanted.remove_prefix(1);
      wantedAfterStar = wanted;
      restAfterStar = rest;
      continue;
    }
    if (rest.empty() && wanted.empty()) return true;
    if (!rest.empty() && !wanted.empty()) {
      NativeView nextRest = rest;
      const char32_t character = TakeFolded(nextRest);
      if (TakeOne(wanted, character)) {
        rest = nextRest;
        continue;
      }
    }
    if (!wantedAfterStar || restAfterStar.empty()) return false;
    TakeCharacter(restAfterStar);
    rest = restAfterStar;
    wanted = *wantedAfterStar;
  }
}

Pattern::Pattern(const std::filesystem::path& path) : m_root(path.root_path()) {
  for (const std::filesystem::path& part : path.lexically_normal().relative_path()) {
    if (!part.empty()) m_parts.push_back(part.native());
  }
}

void Pattern::List(Listing& listing) const {
  if (!m_parts.empty()) ListBelow(m_root, 0, listing);
}

void Pattern::ListBelow(const std::filesystem::path& start, std::size_t depth, Listing& listing) const {
  std::filesystem::path folder = start;
  while (depth + 1 < m_parts.size() && !HasWildcard(m_parts[depth])) folder /= m_parts[depth++];
  const bool isLast = depth + 1 == m_parts.size();
  const NativeString& part = m_parts[depth];

  std::error_code error;
  if (!std::filesystem::is_directory(folder, error)) {
    listing.lacksFolder = true;
    if (error) listing.failures.emplace_back(folder, error);
    return;
  }
  listing.folders.push_back(folder);
  if (!HasWildcard(part)) {
    if (exists(symlink_status(folder / part, error))) listing.names.push_back(folder / part);
    return;
  }
  std::filesystem::directory_iterator entry(folder, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (!MatchesName(part, entry->path().filename().native())) continue;
    std::error_code ignored;
    if (isLast) {
      listing.names.push_back(entry->path());
    } else if (entry->is_directory(ignored)) {
      ListBelow(entry->path(), depth + 1, listing);
    }
  }
  if (error) listing.failures.emplace_back(folder, error);
}

bool Pattern::Concerns(const std::filesystem::path& path) const { return MatchesParts(path, false); }

bool Pattern::Matches(const std::filesystem::path& path) const { return MatchesParts(path, true); }

bool Pattern::MatchesParts(const std::filesystem::path& path, bool isWhole) const {
  if (path.root_path() != m_root) return false;
  std::size_t depth = 0;
  for (const std::filesystem::path& part : path.relative_path()) {
    if (depth == m_parts.size() || !MatchesName(m_parts[depth], part.native())) return false;
    ++depth;
  }
  return !isWhole || depth == m_parts.size();
}

}  // namespace sorvex::collect
