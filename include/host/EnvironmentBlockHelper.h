// Typed look-ups with defaults over a parameter block.
#pragma once

#include <host/ParameterBlock.h>
#include <host/Text.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace WindowsAgentCommon {

/// Reads a parameter block that outlives it; takes no copy. Every look-up is const and may run in any thread while
/// nobody writes the block. Of two entries with one key the first is read.
///
/// Each `Get...Value` stores the parameter in `value` and returns true; when the key is absent, or its text is not
/// one of the type, it stores `defaultValue` and returns false. No operation throws for what a block contains.
class SORVEXCOMMON_EXPORT EnvironmentBlockHelper {
 public:
  explicit EnvironmentBlockHelper(const ParameterBlock& parameters);
  /// A temporary would be gone before the first look-up.
  explicit EnvironmentBlockHelper(const ParameterBlock&&) = delete;

  /// The value as it stands, UTF-8.
  bool GetStringValue(const std::string& name, std::string& value, const std::string& defaultValue) const;

  /// The value converted from UTF-8.
  bool GetWideStringValue(const std::string& name, std::wstring& value, const std::wstring& defaultValue) const;

  /// "true", "yes", "on", "1" and "false", "no", "off", "0", in any case, blanks around them ignored.
  bool GetBooleanValue(const std::string& name, bool& value, bool defaultValue) const;

  /// Decimal digits up to 4294967295, blanks around them ignored; no sign.
  bool GetUInt32Value(const std::string& name, std::uint32_t& value, std::uint32_t defaultValue) const;

  /// Decimal digits up to 65535, blanks around them ignored; no sign.
  bool GetUInt16Value(const std::string& name, std::uint16_t& value, std::uint16_t defaultValue) const;

  /// Returns the entries whose whole key matches the regular expression `pattern` (ECMAScript), as pairs of whole key
  /// and value in the block's order. An expression that cannot be compiled matches nothing, and a key for
  /// which matching would take unreasonably long does not match.
  std::vector<std::pair<std::string, std::string>> GetValuesForMatchingName(const std::string& pattern) const;

 private:
  const ParameterBlock& m_parameters;
};

}  // namespace WindowsAgentCommon
