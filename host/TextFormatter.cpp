#include "TextFormatter.h"

#include <host/Text.h>

#include "TextEscape.h"
#include "Utf8.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <iterator>
#include <utility>

namespace WindowsAgentCommon {
namespace {

/// Limits width and precision, so that a wrong argument of a '*' cannot ask for gigabytes.
constexpr std::size_t LONGEST_FIELD = 4096;

bool IsInteger(const LogArgument& argument) {
  return argument.m_kind == LogArgument::Kind::Signed || argument.m_kind == LogArgument::Kind::Unsigned ||
         argument.m_kind == LogArgument::Kind::Pointer;
}

std::uint64_t AsUnsigned(const LogArgument& argument) {
  if (argument.m_size >= sizeof argument.m_bits) return argument.m_bits;
  return argument.m_bits & ((std::uint64_t{1} << (8 * argument.m_size)) - 1);
}

std::int64_t AsSigned(const LogArgument& argument) {
  const std::uint64_t value = AsUnsigned(argument);
  // A variable argument narrower than an int arrives as an int, whose sign bit it does not reach.
  if (argument.m_kind == LogArgument::Kind::Unsigned && argument.m_size < sizeof(int)) {
    return static_cast<std::int64_t>(value);
  }
  if (argument.m_size >= sizeof value) return static_cast<std::int64_t>(value);
  const std::uint64_t sign = std::uint64_t{1} << (8 * argument.m_size - 1);
  return static_cast<std::int64_t>((value ^ sign) - sign);
}

}  // namespace

TextFormatter::TextFormatter(std::string_view format, const LogArgument* arguments, std::size_t count, bool escape,
                             std::size_t limit)
    : m_format(format), m_pArguments(arguments), m_count(count), m_bEscape(escape), m_result(limit) {}

std::string TextFormatter::Run() {
  m_result.Reserve(m_format.size() + 16 * m_count);
  std::size_t position = 0;
  while (position < m_format.size()) {
    const std::size_t percent = std::min(m_format.find('%', position), m_format.size());
    m_result.Append(m_format.substr(position, percent - position));
    position = percent;
    if (position == m_format.size()) break;

    const std::size_t start = position++;
    Directive directive;
    const bool isConversion = ReadDirective(position, directive);
    if (isConversion && directive.m_conversion == '%') {
      m_result.Append("%");
    } else if (!isConversion || m_next == m_count) {
      m_result.Append(m_format.substr(start, position - start));
    } else {
      AppendArgument(directive, m_pArguments[m_next++]);
    }
  }
  return m_result.Take();
}

/// Reads what follows a percent sign; returns false when it is not a conversion.
bool TextFormatter::ReadDirective(std::size_t& position, Directive& directive) {
  ReadFlags(position, directive);
  ReadWidth(position, directive);
  ReadPrecision(position, directive);
  SkipLengthModifiers(position);
  if (position == m_format.size()) return false;
  directive.m_conversion = m_format[position++];
  return std::string_view("diuxXocsSp%").find(directive.m_conversion) != std::string_view::npos;
}

void TextFormatter::ReadFlags(std::size_t& position, Directive& directive) const {
  for (; position < m_format.size(); ++position) {
    switch (m_format[position]) {
      case '-': directive.m_bLeft = true; break;
      case '+': directive.m_bPlus = true; break;
      case ' ': directive.m_bBlank = true; break;
      case '#': directive.m_bAlternate = true; break;
      case '0': directive.m_bZero = true; break;
      default: return;
    }
  }
}

void TextFormatter::ReadWidth(std::size_t& position, Directive& directive) {
  if (position < m_format.size() && m_format[position] == '*') {
    ++position;
    std::int64_t width = 0;
    if (!TakeStar(width)) return;
    // As in printf, a negative width is the flag '-' and a width.
    if (width < 0) directive.m_bLeft = true;
    const std::uint64_t magnitude =
        width < 0 ? ~static_cast<std::uint64_t>(width) + 1 : static_cast<std::uint64_t>(width);
    directive.m_width = static_cast<std::size_t>(std::min<std::uint64_t>(magnitude, LONGEST_FIELD));
  } else {
    directive.m_width = ReadNumber(position);
  }
}

void TextFormatter::ReadPrecision(std::size_t& position, Directive& directive) {
  if (position == m_format.size() || m_format[position] != '.') return;
  ++position;
  if (position < m_format.size() && m_format[position] == '*') {
    ++position;
    std::int64_t precision = -1;
    // As in printf, a negative precision counts as none.
    if (!TakeStar(precision) || precision < 0) return;
    directive.m_precision = static_cast<std::size_t>(std::min<std::int64_t>(precision, LONGEST_FIELD));
  } else {
    directive.m_precision = ReadNumber(position);
  }
  directive.m_bHasPrecision = true;
}

/// Skips the modifiers, which are irrelevant here: every argument knows its own type.
void TextFormatter::SkipLengthModifiers(std::size_t& position) const {
  while (position < m_format.size()) {
    const std::string_view rest = m_format.substr(position);
    if (rest.starts_with("I64") || rest.starts_with("I32")) {
      position += 3;
    } else if (std::string_view("hljztL").find(rest.front()) != std::string_view::npos) {
      ++position;
    } else {
      return;
    }
  }
}

std::size_t TextFormatter::ReadNumber(std::size_t& position) const {
  std::size_t number = 0;
  for (; position < m_format.size() && m_format[position] >= '0' && m_format[position] <= '9'; ++position) {
    number = std::min(number * 10 + static_cast<std::size_t>(m_format[position] - '0'), LONGEST_FIELD);
  }
  return number;
}

/// Takes the argument of a '*'; one that is not an integer is left for the conversion.
bool TextFormatter::TakeStar(std::int64_t& value) {
  if (m_next == m_count || !IsInteger(m_pArguments[m_next])) return false;
  value = AsSigned(m_pArguments[m_next++]);
  return true;
}

/// The argument's own type decides; the conversion only says how to print it.
void TextFormatter::AppendArgument(const Directive& directive, const LogArgument& argument) {
  if (argument.m_kind == LogArgument::Kind::Narrow) {
    AppendText(directive, argument.m_narrow);
  } else if (argument.m_kind == LogArgument::Kind::Wide) {
    AppendText(directive, WideToUtf8(argument.m_wide));
  } else if (directive.m_conversion == 'c') {
    AppendCharacter(directive, argument);
  } else {
    AppendInteger(directive, argument);
  }
}

void TextFormatter::AppendInteger(const Directive& directive, const LogArgument& argument) {
  char conversion = directive.m_conversion;
  if (conversion == 's' || conversion == 'S') {
    conversion = argument.m_kind == LogArgument::Kind::Signed     ? 'd'
                 : argument.m_kind == LogArgument::Kind::Unsigned ? 'u'
                                                                  : 'p';
  }
  std::string_view prefix;
  std::uint64_t magnitude = AsUnsigned(argument);
  int base = 10;
  if (conversion == 'd' || conversion == 'i') {
    const std::int64_t value = AsSigned(argument);
    if (value < 0) {
      magnitude = ~static_cast<std::uint64_t>(value) + 1;
      prefix = "-";
    } else {
      magnitude = static_cast<std::uint64_t>(value);
      prefix = directive.m_bPlus ? "+" : directive.m_bBlank ? " " : "";
    }
  } else if (conversion == 'x' || conversion == 'X' || conversion == 'p') {
    base = 16;
    if (conversion == 'p' || (directive.m_bAlternate && magnitude != 0)) prefix = conversion == 'X' ? "0X" : "0x";
  } else if (conversion == 'o') {
    base = 8;
  }

  char digits[24];
  char* end = std::to_chars(std::begin(digits), std::end(digits), magnitude, base).ptr;
  if (conversion == 'X') {
    std::transform(std::begin(digits), end, std::begin(digits),
                   [](char digit) { return digit >= 'a' ? static_cast<char>(digit - 'a' + 'A') : digit; });
  }
  // As in printf, zero with a precision of zero prints no digit.
  if (directive.m_bHasPrecision && directive.m_precision == 0 && magnitude == 0) end = digits;
  const std::string_view body(digits, static_cast<std::size_t>(end - digits));

  std::size_t zeros = 0;
  if (directive.m_bHasPrecision) {
    if (directive.m_precision > body.size()) zeros = directive.m_precision - body.size();
  } else if (directive.m_bZero && !directive.m_bLeft) {
    if (directive.m_width > prefix.size() + body.size()) zeros = directive.m_width - prefix.size() - body.size();
  }
  // As in printf, the alternate form of an octal number begins with a zero.
  if (base == 8 && directive.m_bAlternate && zeros == 0 && !body.starts_with('0')) zeros = 1;
  AppendPadded(directive, prefix, zeros, body);
}

/// Prints the code point in the argument; a negative `char` beyond ASCII is printed as its byte.
void TextFormatter::AppendCharacter(const Directive& directive, const LogArgument& argument) {
  const std::int64_t value = AsSigned(argument);
  std::string character;
  if (value >= SCHAR_MIN && value < 0) {
    character += static_cast<char>(static_cast<unsigned char>(value));
  } else if (value < 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
    AppendUtf8(character, REPLACEMENT_CHARACTER);
  } else {
    AppendUtf8(character, static_cast<char32_t>(value));
  }
  Directive whole = directive;
  whole.m_bHasPrecision = false;
  AppendText(whole, character);
}

void TextFormatter::AppendText(const Directive& directive, std::string_view value) {
  if (directive.m_bHasPrecision) value = CutUtf8(value, directive.m_precision);
  if (!m_bEscape) {
    AppendPadded(directive, {}, 0, value);
    return;
  }
  std::size_t blanks = 0;
  if (value.size() < directive.m_width) {
    BoundedText escaped;
    AppendEscaped(escaped, value);
    if (escaped.View().size() < directive.m_width) blanks = directive.m_width - escaped.View().size();
  }
  if (!directive.m_bLeft) m_result.Append(blanks, ' ');
  // Not the text above: the limit may split that one inside an escape.
  AppendEscaped(m_result, value);
  if (directive.m_bLeft) m_result.Append(blanks, ' ');
}

void TextFormatter::AppendPadded(const Directive& directive, std::string_view prefix, std::size_t zeros,
                                 std::string_view body) {
  const std::size_t length = prefix.size() + zeros + body.size();
  const std::size_t blanks = directive.m_width > length ? directive.m_width - length : 0;
  if (!directive.m_bLeft) m_result.Append(blanks, ' ');
  m_result.Append(prefix);
  m_result.Append(zeros, '0');
  m_result.Append(body);
  if (directive.m_bLeft) m_result.Append(blanks, ' ');
}

}  // namespace WindowsAgentCommon
