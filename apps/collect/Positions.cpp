#include <collect/Positions.h>

#include <collect/Fingerprint.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

namespace sorvex::collect {
namespace {

constexpr std::string_view firstLine = "sorvex-positions 1";
constexpr std::string_view lastLine = "end";
constexpr std::string_view inputWord = "input";
constexpr std::string_view fileWord = "file";
constexpr std::string_view hexDigits = "0123456789abcdef";

std::optional<std::string> Unescape(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    if (text[0] != '%') {
      plain += text[0];
      text.remove_prefix(1);
      continue;
    }
    if (text.size() < 3) return std::nullopt;
    const std::size_t high = hexDigits.find(text[1]);
    const std::size_t low = hexDigits.find(text[2]);
    if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
    plain += static_cast<char>(high << 4U | low);
    text.remove_prefix(3);
  }
  return plain;
}

/// The fields of a line, separated by one blank.
class Fields {
 public:
  explicit Fields(std::string_view line) : m_rest(line) {}

  /// The next field; empty when there is none, since no field is empty.
  std::string_view Take() {
    const std::size_t end = std::min(m_rest.find(' '), m_rest.size());
    const std::string_view field = m_rest.substr(0, end);
    m_rest.remove_prefix(std::min(end + 1, m_rest.size()));
    return field;
  }

  template <class Number>
  bool Take(Number& number) {
    const std::string_view field = Take();
    const char* const end = field.data() + field.size();
    const auto [place, error] = std::from_chars(field.data(), end, number);
    return error == std::errc() && place == end;
  }

  bool IsEmpty() const { return m_rest.empty(); }

 private:
  std::string_view m_rest;
};

/// The line without its checksum, which must match.
std::optional<std::string_view> CheckLine(std::string_view line) {
  const std::size_t blank = line.rfind(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  std::uint64_t check = 0;
  const char* const end = line.data() + line.size();
  const auto [place, error] = std::from_chars(line.data() + blank + 1, end, check, 16);
  line = line.substr(0, blank);
  if (error != std::errc() || place != end) return std::nullopt;
  if (check != Fingerprint::Extend(Fingerprint::ofNothing, line)) return std::nullopt;
  return line;
}

bool ReadPlace(Fields fields, Place& place) {
  int rotated = 0;
  if (!fields.Take(place.identity.volume) || !fields.Take(place.identity.index) || !fields.Take(place.identity.birth) ||
      !fields.Take(place.position) || !fields.Take(place.head.length) || !fields.Take(place.head.hash) ||
      !fields.Take(rotated) || !fields.Take(place.seenTime)) {
    return false;
  }
  if (place.head.length > Head::maxLength || rotated < 0 || rotated > 1) return false;
  // Room for additions.
  if (place.position > std::numeric_limits<std::int64_t>::max()) return false;
  const std::optional<std::string> path = Unescape(fields.Take());
  if (!path || path->empty() || !fields.IsEmpty()) return false;
  place.isRotated = rotated == 1;
  place.path = TextToPath(*path);
  return true;
}

bool ReadLine(std::string_view line, Positions& positions) {
  const std::optional<std::string_view> checked = CheckLine(line);
  if (!checked) return false;
  Fields fields(*checked);
  const std::string_view word = fields.Take();
  if (word == inputWord) {
    const std::optional<std::string> pattern = Unescape(fields.Take());
    if (!pattern || pattern->empty() || !fields.IsEmpty()) return false;
    positions.patterns.push_back(*pattern);
    return true;
  }
  Place place;
  if (word != fileWord || !ReadPlace(fields, place)) return false;
  positions.places.push_back(place);
  return true;
}

}  // namespace

PositionsText::PositionsText() : m_text(firstLine) { m_text += '\n'; }

void PositionsText::AddPattern(std::string_view pattern) {
  const std::size_t begin = m_text.size();
  m_text += inputWord;
  AddEscaped(pattern);
  EndLine(begin);
}

void PositionsText::AddPlace(const Place& place, std::int64_t seenTime) {
  const std::size_t begin = m_text.size();
  m_text += fileWord;
  for (const std::uint64_t number : {place.identity.volume, place.identity.index, place.identity.birth, place.position,
                                     place.head.length, place.head.hash}) {
    AddNumber(number);
  }
  m_text += place.isRotated ? " 1 " : " 0 ";
  m_text += std::to_string(seenTime);
  AddEscaped(PathToText(place.path));
  EndLine(begin);
}

std::string PositionsText::Finish() {
  m_text += lastLine;
  m_text += '\n';
  return std::move(m_text);
}

void PositionsText::AddNumber(std::uint64_t number) {
  std::array<char, std::numeric_limits<std::uint64_t>::digits10 + 1> digits{};
  const auto [end, error] = std::to_chars(digits.begin(), digits.end(), number);
  m_text += ' ';
  m_text.append(digits.begin(), end);
}

/// Blanks, control characters, `%` and non-ASCII as `%` and two digits.
void PositionsText::AddEscaped(std::string_view text) {
  m_text += ' ';
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte > 0x20 && byte < 0x7F && byte != '%') {
      m_text += character;
    } else {
      m_text += {'%', hexDigits[byte >> 4U], hexDigits[byte & 0xFU]};
    }
  }
}

/// Adds the checksum of the line that begins at `begin`.
void PositionsText::EndLine(std::size_t begin) {
  const std::string_view line = std::string_view(m_text).substr(begin);
  std::array<char, 16> check{};
  const auto [end, error] =
      std::to_chars(check.begin(), check.end(), Fingerprint::Extend(Fingerprint::ofNothing, line), 16);
  m_text += ' ';
  m_text.append(check.begin(), end);
  m_text += '\n';
}

bool ReadPositions(std::string_view text, Positions& positions) {
  const auto takeLine = [&text]() -> std::string_view {
    const std::size_t end = text.find('\n');
    // A line without its line feed was cut off.
    if (end == std::string_view::npos) return {};
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
  };
  if (takeLine() != firstLine) return false;
  bool isWhole = true;
  for (std::string_view line = takeLine(); !line.empty(); line = takeLine()) {
    if (line == lastLine) return isWhole && text.empty();
    if (!ReadLine(line, positions)) isWhole = false;
  }
  return false;
}

}  // namespace sorvex::collect
