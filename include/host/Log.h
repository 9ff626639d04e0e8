// A named logger, cheap to copy, printf-style.
#pragma once

#include <SorvexCommonExport.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace WindowsAgentCommon {

enum class LogLevel { Debug, Info, Warn, Error };

/// The destination of log records. Implementations are called from any thread, several at once.
class SORVEXCOMMON_EXPORT ILogSink {
 public:
  virtual ~ILogSink();

  /// Whether a record of this level would be kept; if not, the caller saves the formatting.
  virtual bool IsEnabled(LogLevel level) const = 0;

  /// Takes one record. `message` is formatted text with logged values already escaped.
  virtual void Write(LogLevel level, const std::string& loggerName, const std::string& message) = 0;
};

/// One argument of a log format, captured by value, or by view for the duration of the call.
class LogArgument {
 public:
  enum class Kind { Signed, Unsigned, Pointer, Narrow, Wide };

  template <class T>
  requires std::is_integral_v<T> LogArgument(T value)
      : m_kind(std::is_signed_v<T> ? Kind::Signed : Kind::Unsigned),
        m_size(sizeof value),
        m_bits(static_cast<std::uint64_t>(value)) {}
  template <class T>
  requires std::is_enum_v<T> LogArgument(T value) : LogArgument(static_cast<std::underlying_type_t<T>>(value)) {}
  LogArgument(const char* text) : m_kind(Kind::Narrow), m_narrow(text ? std::string_view(text) : "(null)") {}
  LogArgument(const std::string& text) : m_kind(Kind::Narrow), m_narrow(text) {}
  LogArgument(std::string_view text) : m_kind(Kind::Narrow), m_narrow(text) {}
  LogArgument(const wchar_t* text) : m_kind(Kind::Wide), m_wide(text ? std::wstring_view(text) : L"(null)") {}
  LogArgument(const std::wstring& text) : m_kind(Kind::Wide), m_wide(text) {}
  LogArgument(const void* pointer) : m_kind(Kind::Pointer), m_size(sizeof pointer) {
    m_bits = reinterpret_cast<std::uintptr_t>(pointer);
  }

  Kind m_kind;
  std::size_t m_size = 0;  ///< size of an integer in bytes
  std::uint64_t m_bits = 0;
  std::string_view m_narrow;
  std::wstring_view m_wide;
};

/// Formats `format` with `arguments`, alike on every platform: %d and %i print a signed number, %u an unsigned one of
/// the argument's own width (an unsigned argument narrower than an int is never negative), %x and %X hexadecimal, %p
/// "0x" and hexadecimal, %s, %hs, %S and %ls a narrow or wide text depending on the argument, %c a code point, or the
/// byte that a negative `char` is, %% a percent sign. Flags, width, precision (both at most 4096; a text's in bytes of
/// UTF-8, splitting no sequence) and `*` work as in printf; length modifiers (h hh l ll z j t L I64 I32) are skipped.
/// An argument whose type does not match its conversion is printed by its own type. A conversion without an argument
/// prints itself; surplus arguments are ignored. With `escape`, in text and character arguments a backslash is printed
/// as `\\`, and each byte of a control character (below U+0020, U+007F to U+009F, U+2028, U+2029), of a character that
/// changes the writing direction (U+061C, U+200E, U+200F, U+202A to U+202E, U+2066 to U+2069) and of invalid UTF-8 as
/// `\n`, `\r`, `\t` or `\xHH`: a value can neither start a line, nor change how a line is shown, nor pretend to be
/// escaped.
SORVEXCOMMON_EXPORT std::string FormatText(const char* format, const LogArgument* arguments, std::size_t count,
                                           bool escape);

/// Calls `FormatText` with its arguments, without escaping.
template <class... Arguments>
std::string Format(const char* format, const Arguments&... arguments) {
  const LogArgument list[] = {LogArgument(arguments)..., LogArgument(0)};
  return FormatText(format, list, sizeof...(Arguments), false);
}

/// A handle on a logger; copies share it. A default-constructed one discards everything. Any thread may log through any
/// copy, but must not replace a handle while another thread logs through it. Logging never throws: a record that cannot
/// be written is lost. A message longer than 64 KiB is cut, and " [<number> more bytes]" follows. A record that the
/// sink does not keep is not formatted; a caller that builds a text for a record first asks `IsEnabled`.
class SORVEXCOMMON_EXPORT Log {
 public:
  Log();
  Log(std::string name, std::shared_ptr<ILogSink> sink);
  Log(const Log&);
  Log(Log&&) noexcept;
  Log& operator=(const Log&);
  Log& operator=(Log&&) noexcept;
  ~Log();

  template <class... Arguments>
  void Debug(const char* format, const Arguments&... arguments) const {
    Write(LogLevel::Debug, format, arguments...);
  }
  template <class... Arguments>
  void Info(const char* format, const Arguments&... arguments) const {
    Write(LogLevel::Info, format, arguments...);
  }
  template <class... Arguments>
  void Warn(const char* format, const Arguments&... arguments) const {
    Write(LogLevel::Warn, format, arguments...);
  }
  template <class... Arguments>
  void Error(const char* format, const Arguments&... arguments) const {
    Write(LogLevel::Error, format, arguments...);
  }

  bool IsEnabled(LogLevel level) const;
  const std::string& GetName() const;

 private:
  template <class... Arguments>
  void Write(LogLevel level, const char* format, const Arguments&... arguments) const {
    if (!IsEnabled(level)) return;
    const LogArgument list[] = {LogArgument(arguments)..., LogArgument(0)};
    WriteRecord(level, format, list, sizeof...(Arguments));
  }
  void WriteRecord(LogLevel level, const char* format, const LogArgument* arguments, std::size_t count) const;

  struct Target;
  std::shared_ptr<const Target> m_pTarget;
};

}  // namespace WindowsAgentCommon
