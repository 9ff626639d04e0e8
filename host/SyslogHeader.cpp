#include "SyslogHeader.h"

#include "platform/LocalTime.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace WindowsAgentCommon {

UtcTime::UtcTime(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto microsecond = floor<microseconds>(time);
  const auto day = floor<days>(microsecond);
  const year_month_day date(day);
  const auto ofDay = static_cast<unsigned long long>((microsecond - day).count());
  const auto secondOfDay = static_cast<unsigned>(ofDay / 1'000'000);
  m_year = static_cast<unsigned>(std::clamp(static_cast<int>(date.year()), 0, 9999));
  m_month = static_cast<unsigned>(date.month());
  m_day = static_cast<unsigned>(date.day());
  m_hour = secondOfDay / 3600;
  m_minute = secondOfDay / 60 % 60;
  m_second = secondOfDay % 60;
  m_microsecond = static_cast<unsigned>(ofDay % 1'000'000);
}

std::string_view GetLastPathComponent(std::string_view path) {
  constexpr std::string_view separators = "/\\";
  const std::size_t last = path.find_last_not_of(separators);
  if (last == std::string_view::npos) return {};
  path = path.substr(0, last + 1);
  const std::size_t separator = path.find_last_of(separators);
  return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

void SyslogHeader::Append(char character) { m_text[m_length++] = character; }

void SyslogHeader::Append(std::string_view text) {
  std::memcpy(m_text.data() + m_length, text.data(), text.size());
  m_length += text.size();
}

void SyslogHeader::AppendNumber(unsigned value, unsigned digits, char fill) {
  char* const begin = m_text.data() + m_length;
  char* position = begin + digits;
  do {
    *--position = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0 && position != begin);
  std::fill(begin, position, fill);
  m_length += digits;
}

void SyslogHeader::AppendPriority(int level) {
  constexpr int facilityUser = 1;
  const int priority = facilityUser * 8 + std::clamp(level, 0, 7);
  Append('<');
  char* const begin = m_text.data() + m_length;
  m_length += static_cast<std::size_t>(std::to_chars(begin, m_text.data() + m_text.size(), priority).ptr - begin);
  Append('>');
}

void SyslogHeader::AppendRfc3339(const UtcTime& time) {
  AppendNumber(time.m_year, 4);
  Append('-');
  AppendNumber(time.m_month, 2);
  Append('-');
  AppendNumber(time.m_day, 2);
  Append('T');
  AppendNumber(time.m_hour, 2);
  Append(':');
  AppendNumber(time.m_minute, 2);
  Append(':');
  AppendNumber(time.m_second, 2);
  Append('.');
  AppendNumber(time.m_microsecond, 6);
  Append('Z');
}

void SyslogHeader::AppendBsdTime(std::chrono::system_clock::time_point time) {
  constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  // Rounded down, also before 1970.
  const auto second = std::chrono::floor<std::chrono::seconds>(time);
  std::tm local{};
  if (!GetLocalTime(std::chrono::system_clock::to_time_t(second), local)) {
    const UtcTime utc(second);
    local.tm_mon = static_cast<int>(utc.m_month) - 1;
    local.tm_mday = static_cast<int>(utc.m_day);
    local.tm_hour = static_cast<int>(utc.m_hour);
    local.tm_min = static_cast<int>(utc.m_minute);
    local.tm_sec = static_cast<int>(utc.m_second);
  }
  Append(months.substr(static_cast<std::size_t>(local.tm_mon) * 3, 3));
  Append(' ');
  AppendNumber(static_cast<unsigned>(local.tm_mday), 2, ' ');
  Append(' ');
  AppendNumber(static_cast<unsigned>(local.tm_hour), 2);
  Append(':');
  AppendNumber(static_cast<unsigned>(local.tm_min), 2);
  Append(':');
  AppendNumber(static_cast<unsigned>(local.tm_sec), 2);
}

void SyslogHeader::AppendName(std::string_view name, std::size_t longest) {
  if (name.empty()) {
    Append('-');
    return;
  }
  for (const char character : name.substr(0, longest)) {
    Append(character > 0x20 && character < 0x7F ? character : '_');
  }
}

void SyslogHeader::AppendHostWithoutDomain(std::string_view host, std::size_t longest) {
  // RFC 3164, 4.1.2: no domain. The dots of an address separate no domain.
  const bool isAddress =
      host.find(':') != std::string_view::npos || host.find_first_not_of("0123456789.") == std::string_view::npos;
  AppendName(isAddress ? host : host.substr(0, host.find('.')), longest);
}

void SyslogHeader::AppendTag(std::string_view name) {
  const std::size_t start = m_length;
  for (const char character : name) {
    if (m_length - start == LONGEST_TAG) break;
    const bool digit = character >= '0' && character <= '9';
    const bool letter = (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
    if (digit || letter) Append(character);
  }
  if (m_length == start) Append("unknown");
}

}  // namespace WindowsAgentCommon
