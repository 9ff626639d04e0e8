#include <host/EnvironmentBlockHelper.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/regex.hpp>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <locale>
#include <stdexcept>
#include <string_view>

namespace WindowsAgentCommon {
namespace {

/// Returns the value of the first entry of that name, or null.
const std::string* FindFirst(const ParameterBlock& parameters, const std::string& name) {
  const auto entry = parameters.lower_bound(name);
  return entry != parameters.end() && entry->first == name ? &entry->second : nullptr;
}

bool ParseBoolean(std::string_view text, bool& value) {
  const auto isText = [text](std::string_view word) {
    return boost::algorithm::iequals(text, word, std::locale::classic());
  };
  constexpr std::string_view yes[] = {"true", "yes", "on", "1"};
  constexpr std::string_view no[] = {"false", "no", "off", "0"};
  value = std::any_of(std::begin(yes), std::end(yes), isText);
  return value || std::any_of(std::begin(no), std::end(no), isText);
}

template <class Number>
bool ReadNumber(const ParameterBlock& parameters, const std::string& name, Number& value, Number defaultValue) {
  if (const std::string* stored = FindFirst(parameters, name)) {
    const std::string text = boost::algorithm::trim_copy(*stored, std::locale::classic());
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size()) {
      value = number;
      return true;
    }
  }
  value = defaultValue;
  return false;
}

/// Whether the whole key matches. A key for which the library gives up, because it would take too long, does not.
bool Matches(const std::string& key, const boost::regex& expression) {
  try {
    return boost::regex_match(key, expression);
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace

EnvironmentBlockHelper::EnvironmentBlockHelper(const ParameterBlock& parameters) : m_parameters(parameters) {}

bool EnvironmentBlockHelper::GetStringValue(const std::string& name, std::string& value,
                                            const std::string& defaultValue) const {
  const std::string* stored = FindFirst(m_parameters, name);
  value = stored ? *stored : defaultValue;
  return stored != nullptr;
}

bool EnvironmentBlockHelper::GetWideStringValue(const std::string& name, std::wstring& value,
                                                const std::wstring& defaultValue) const {
  const std::string* stored = FindFirst(m_parameters, name);
  value = stored ? Utf8ToWide(*stored) : defaultValue;
  return stored != nullptr;
}

bool EnvironmentBlockHelper::GetBooleanValue(const std::string& name, bool& value, bool defaultValue) const {
  const std::string* stored = FindFirst(m_parameters, name);
  bool parsed = false;
  const bool found = stored && ParseBoolean(boost::algorithm::trim_copy(*stored, std::locale::classic()), parsed);
  value = found ? parsed : defaultValue;
  return found;
}

bool EnvironmentBlockHelper::GetUInt32Value(const std::string& name, std::uint32_t& value,
                                            std::uint32_t defaultValue) const {
  return ReadNumber(m_parameters, name, value, defaultValue);
}

bool EnvironmentBlockHelper::GetUInt16Value(const std::string& name, std::uint16_t& value,
                                            std::uint16_t defaultValue) const {
  return ReadNumber(m_parameters, name, value, defaultValue);
}

std::vector<std::pair<std::string, std::string>> EnvironmentBlockHelper::GetValuesForMatchingName(
    const std::string& pattern) const {
  std::vector<std::pair<std::string, std::string>> matches;
  // Not std::regex, whose matching recurses for every character: a long key would overflow the stack.
  boost::regex expression;
  if (expression.set_expression(pattern, boost::regex::ECMAScript | boost::regex::no_except) != 0) return matches;
  for (const auto& entry : m_parameters) {
    if (Matches(entry.first, expression)) matches.emplace_back(entry);
  }
  return matches;
}

}  // namespace WindowsAgentCommon
