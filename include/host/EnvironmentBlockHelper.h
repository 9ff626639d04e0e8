// Typed look-ups with defaults over a parameter block.
#pragma once

#include <host/ParameterBlock.h>
#include <host/Text.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace WindowsAgentCommon {

/// Reads a parameter block, which must outlive it; makes no copy. Every look-up is const and may run in any thread
/// while nobody writes the block. When a key occurs twice, the first entry counts.
///
/// Each `Get...Value` stores the parameter in `value` and returns true; when the key is missing or its text is not of
/// the type, it stores `defaultValue` and returns false. No operation throws because of a block's content.
class SORVEXCOMMON_EXPORT EnvironmentBlockHelper {
 public:
  explicit EnvironmentBlockHelper(const ParameterBlock& parameters);
  /// A temporary would be destroyed before the first look-up.
  explicit EnvironmentBlockHelper(const ParameterBlock&&) = delete;

  /// The value unchanged, UTF-8.
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
  /// and value in the block's order. An invalid expression matches nothing, and a key that would take unreasonably long
  /// to match does not match.
  std::vector<std::pair<std::string, std::string>> GetValuesForMatchingName(const std::string& pattern) const;

 private:
  const ParameterBlock& m_parameters;
};

}  // namespace WindowsAgentCommon
