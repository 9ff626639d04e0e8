// The formatter behind `FormatText`: one format, one list of arguments, one result.
#pragma once

#include <host/Log.h>

#include "BoundedText.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {

/// Used once, by one thread. The format and the arguments outlive it.
class TextFormatter {
 public:
  TextFormatter(std::string_view format, const LogArgument* arguments, std::size_t count, bool escape,
                std::size_t limit = std::string::npos);

  /// Returns the formatted text; a text over the limit is cut, and its end says by how much.
  std::string Run();

 private:
  /// One conversion of the format.
  struct Directive {
    bool m_bLeft = false;
    bool m_bPlus = false;
    bool m_bBlank = false;
    bool m_bAlternate = false;
    bool m_bZero = false;
    std::size_t m_width = 0;
    bool m_bHasPrecision = false;
    std::size_t m_precision = 0;
    char m_conversion = '\0';
  };

  bool ReadDirective(std::size_t& position, Directive& directive);
  void ReadFlags(std::size_t& position, Directive& directive) const;
  void ReadWidth(std::size_t& position, Directive& directive);
  void ReadPrecision(std::size_t& position, Directive& directive);
  void SkipLengthModifiers(std::size_t& position) const;
  std::size_t ReadNumber(std::size_t& position) const;
  bool TakeStar(std::int64_t& value);

  void AppendArgument(const Directive& directive, const LogArgument& argument);
  void AppendInteger(const Directive& directive, const LogArgument& argument);
  void AppendCharacter(const Directive& directive, const LogArgument& argument);
  void AppendText(const Directive& directive, std::string_view value);
  void AppendPadded(const Directive& directive, std::string_view prefix, std::size_t zeros, std::string_view body);

  std::string_view m_format;
  const LogArgument* m_pArguments;
  std::size_t m_count;
  std::size_t m_next = 0;
  bool m_bEscape;
  BoundedText m_result;
};

}  // namespace WindowsAgentCommon
