// XML whose elements know their lines.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sorvex::settings {

/// What is wrong with a configuration, and where.
class SettingsError : public std::runtime_error {
 public:
  /// `what()` is "line 3: reason".
  SettingsError(std::size_t line, const std::string& reason);
};

struct XmlElement {
  std::string name;
  std::size_t line = 0;  ///< of its start tag, from 1
  std::vector<std::pair<std::string, std::string>> attributes;
  std::string text;  ///< all of its text, without blanks at both ends
  std::vector<XmlElement> children;
};

/// Reads a whole document in UTF-8 and returns its root element. Comments and processing instructions are skipped. Only
/// XML's own five entities and character references are known; a document type is not. Throws `SettingsError` for
/// everything else, for elements nested more than `maxXmlDepth` deep, and for control characters.
XmlElement ParseXml(std::string_view text);

constexpr std::size_t maxXmlDepth = 16;

}  // namespace sorvex::settings
