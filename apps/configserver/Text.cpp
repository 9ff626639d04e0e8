#include <Text.h>

#include <boost/algorithm/string/case_conv.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <locale>

namespace sorvex::configserver {
namespace {

constexpr std::size_t maxFolderNameBytes = 128;

std::string HexByte(const char* prefix, char byte) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%s%02X", prefix, static_cast<unsigned>(static_cast<unsigned char>(byte)));
  return text.data();
}

bool IsLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

bool IsPlain(char character) {
  return IsLetter(character) || IsDigit(character) || character == '.' || character == '_' || character == '-';
}

/// Some systems take these for a device, whatever follows a full stop.
bool IsDeviceName(std::string_view text) {
  const std::string stem = LowerCase(text.substr(0, text.find('.')));
  if (stem == "con" || stem == "prn" || stem == "aux" || stem == "nul") return true;
  return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) && IsDigit(stem[3]);
}

/// The bytes of the control character that `text` starts with: one, or two of those that only Unicode has (U+0080 to
/// U+009F).
std::size_t ControlBytes(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 32 || first == 127) return 1;
  if (first != 0xC2 || text.size() == 1) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  return second >= 0x80 && second <= 0x9F ? 2 : 0;
}

}  // namespace

std::string Escape(std::string_view text) {
  std::string escaped;
  while (!text.empty()) {
    const std::size_t count = text[0] == '\\' ? 1 : ControlBytes(text);
    for (const char byte : text.substr(0, count)) escaped += HexByte("\\x", byte);
    if (count == 0) escaped += text[0];
    text.remove_prefix(std::max<std::size_t>(count, 1));
  }
  return escaped;
}

std::string LowerCase(std::string_view text) {
  return boost::algorithm::to_lower_copy(std::string(text), std::locale::classic());
}

std::optional<std::string> FolderName(std::string_view identifier) {
  std::string name;
  for (std::size_t i = 0; i < identifier.size(); ++i) {
    const bool isEnd = i == 0 || i + 1 == identifier.size();
    const bool isSpecial = (isEnd && identifier[i] == '.') || (i == 0 && IsDeviceName(identifier));
    if (IsPlain(identifier[i]) && !isSpecial) {
      name += identifier[i];
    } else {
      name += HexByte("%", identifier[i]);
    }
    if (name.size() > maxFolderNameBytes) return std::nullopt;
  }
  if (name.empty()) return std::nullopt;
  return name;
}

bool IsFileName(std::string_view text) { return FolderName(text) == text; }

std::string TimeText(std::int64_t seconds) {
  using namespace std::chrono;
  // Whatever an agent sends: there is no calendar beyond these.
  const sys_seconds time{std::chrono::seconds(std::clamp<std::int64_t>(seconds, 0, 253402300799))};
  const sys_days day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text.data();
}

std::string TimeText() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return TimeText(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

std::filesystem::path Utf8ToPath(std::string_view text) {
  return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

std::string PathToUtf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

}  // namespace sorvex::configserver
