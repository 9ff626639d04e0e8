// The header of a syslog message, built without allocating.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string_view>

namespace WindowsAgentCommon {

/// A point in time in parts, UTC, in the proleptic Gregorian calendar.
struct UtcTime {
  explicit UtcTime(std::chrono::system_clock::time_point time);

  unsigned m_year;  ///< 0 to 9999; times outside get the nearer limit
  unsigned m_month;
  unsigned m_day;
  unsigned m_hour;
  unsigned m_minute;
  unsigned m_second;
  unsigned m_microsecond;
};

/// Returns what follows the last separator ('/' or '\\') of a path; trailing separators do not count.
std::string_view GetLastPathComponent(std::string_view path);

/// A buffer on the stack, large enough for every header that the builders make.
class SyslogHeader {
 public:
  static constexpr std::size_t LONGEST_HOST = 255;
  static constexpr std::size_t LONGEST_APPLICATION = 48;
  static constexpr std::size_t LONGEST_TAG = 32;

  void Append(char character);
  void Append(std::string_view text);

  /// Appends `value`, which has at most `digits` digits, in exactly that many, padded with `fill` in front.
  void AppendNumber(unsigned value, unsigned digits, char fill = '0');

  /// Appends "<PRI>" of the facility "user"; a level outside 0 to 7 counts as the nearer limit.
  void AppendPriority(int level);

  /// Appends "2026-11-20T21:10:53.123456Z".
  void AppendRfc3339(const UtcTime& time);

  /// Appends "Nov  2 21:10:53", local time; UTC when the system has no local time for it.
  void AppendBsdTime(std::chrono::system_clock::time_point time);

  /// Appends at most `longest` bytes of a name, with '_' for blanks and for bytes that are not printable ASCII; "-" for
  /// an empty name.
  void AppendName(std::string_view name, std::size_t longest);

  /// Appends a host's name without its domain, or its address, as `AppendName` does.
  void AppendHostWithoutDomain(std::string_view host, std::size_t longest);

  /// Appends the ASCII letters and digits of a name, at most 32; "unknown" when it has none.
  void AppendTag(std::string_view name);

  std::string_view GetText() const { return {m_text.data(), m_length}; }

 private:
  // "<15>1 ", time, host, application, " - - - " and blanks.
  std::array<char, 6 + 28 + LONGEST_HOST + 1 + LONGEST_APPLICATION + 8> m_text;
  std::size_t m_length = 0;
};

}  // namespace WindowsAgentCommon
