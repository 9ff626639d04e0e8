#include <settings/XmlDocument.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/locale/utf.hpp>
#include <boost/property_tree/detail/rapidxml.hpp>

#include <algorithm>
#include <locale>
#include <memory>
#include <set>

namespace sorvex::settings {
namespace {

namespace xml = boost::property_tree::detail::rapidxml;
using Node = xml::xml_node<char>;

constexpr std::string_view blanks = " \t\r\n";

std::size_t LineAt(std::string_view text, std::size_t position) {
  return 1 + static_cast<std::size_t>(std::ranges::count(text.substr(0, position), '\n'));
}

void CheckCharacters(std::string_view text) {
  using Utf8 = boost::locale::utf::utf_traits<char>;
  const char* const end = text.data() + text.size();
  for (const char* next = text.data(); next != end;) {
    const std::size_t position = static_cast<std::size_t>(next - text.data());
    const boost::locale::utf::code_point point = Utf8::decode(next, end);
    if (point == boost::locale::utf::illegal || point == boost::locale::utf::incomplete) {
      throw SettingsError(LineAt(text, position), "this is not UTF-8");
    }
    if (point < ' ' && blanks.find(static_cast<char>(point)) == std::string_view::npos) {
      throw SettingsError(LineAt(text, position), "a control character");
    }
  }
}

/// Rejects elements nested too deep for the parser, which calls itself for each level. Where this reading of a tag
/// could differ from the parser's, the tag is refused.
class NestingCheck {
 public:
  explicit NestingCheck(std::string_view text) : m_text(text) {}

  void Run() {
    while ((m_position = m_text.find('<', m_position)) != std::string_view::npos) {
      const std::string_view rest = m_text.substr(m_position);
      if (rest.starts_with("<!--")) {
        SkipBehind("-->", 4);
      } else if (rest.starts_with("<![CDATA[")) {
        SkipBehind("]]>", 9);
      } else if (rest.starts_with("<?")) {
        SkipBehind("?>", 2);
      } else if (rest.starts_with("<!")) {
        Fail("document types are not allowed");
      } else if (rest.starts_with("</")) {
        SkipBehind(">", 2);
        m_depth -= m_depth > 0 ? 1 : 0;
      } else {
        SkipStartTag();
      }
    }
  }

 private:
  [[noreturn]] void Fail(const char* reason) const { throw SettingsError(LineAt(m_text, m_position), reason); }

  void SkipBehind(std::string_view end, std::size_t from) {
    const std::size_t found = m_text.find(end, m_position + from);
    if (found == std::string_view::npos) Fail("what begins here does not end");
    m_position = found + end.size();
  }

  void SkipStartTag() {
    const std::size_t name = m_text.find_first_of(" \t\r\n/>", m_position + 1);
    if (name == std::string_view::npos) Fail("this tag does not end");
    if (m_text.substr(m_position + 1, name - m_position - 1).find_first_of("\"'=<?!&") != std::string_view::npos) {
      Fail("this tag has no proper name");
    }
    char last = '\0';
    for (std::size_t at = name; at < m_text.size(); ++at) {
      const char character = m_text[at];
      if (character == '>') {
        if (last != '/' && ++m_depth > maxXmlDepth) Fail("elements are nested too deep");
        m_position = at + 1;
        return;
      }
      if (character == '<') break;
      if (character == '"' || character == '\'') {
        if (last != '=') Fail("a quotation mark in this tag that belongs to no value");
        const std::size_t end = m_text.find_first_of(std::string("<") + character, at + 1);
        if (end == std::string_view::npos || m_text[end] == '<') break;
        at = end;
      }
      if (blanks.find(character) == std::string_view::npos) last = character;
    }
    Fail("this tag does not end");
  }

  std::string_view m_text;
  std::size_t m_position = 0;
  std::size_t m_depth = 0;
};

/// Turns the parser's nodes, which point into the text, into elements.
class Conversion {
 public:
  explicit Conversion(std::string_view original, const char* parsed) : m_original(original), m_parsed(parsed) {}

  XmlElement Convert(const Node& node) const {
    XmlElement element;
    element.name = {node.name(), node.name_size()};
    element.line = LineOf(node.name());
    std::set<std::string> names;
    for (const auto* attribute = node.first_attribute(); attribute != nullptr;
         attribute = attribute->next_attribute()) {
      std::string name(attribute->name(), attribute->name_size());
      const std::string value(attribute->value(), attribute->value_size());
      if (!names.insert(name).second) throw SettingsError(element.line, "the attribute '" + name + "' is given twice");
      if (HasControlCharacter(value)) {
        throw SettingsError(element.line, "a control character in the attribute '" + name + "'");
      }
      element.attributes.emplace_back(std::move(name), value);
    }
    for (const Node* child = node.first_node(); child != nullptr; child = child->next_sibling()) {
      if (child->type() == xml::node_element) {
        element.children.push_back(Convert(*child));
      } else {
        element.text.append(child->value(), child->value_size());
      }
    }
    boost::algorithm::trim(element.text, std::locale::classic());
    return element;
  }

 private:
  std::size_t LineOf(const char* position) const {
    return LineAt(m_original, static_cast<std::size_t>(position - m_parsed));
  }

  /// A character reference can name any character.
  static bool HasControlCharacter(std::string_view value) {
    return std::ranges::any_of(
        value, [](char character) { return static_cast<unsigned char>(character) < ' ' || character == 0x7F; });
  }

  std::string_view m_original;
  const char* m_parsed;
};

void CheckDeclaration(const Node& declaration) {
  for (const auto* attribute = declaration.first_attribute(); attribute != nullptr;
       attribute = attribute->next_attribute()) {
    const std::string_view name(attribute->name(), attribute->name_size());
    const std::string_view value(attribute->value(), attribute->value_size());
    if (name == "encoding" && !boost::algorithm::iequals(value, "UTF-8", std::locale::classic())) {
      throw SettingsError(1, "the encoding has to be UTF-8");
    }
  }
}

XmlElement FindRoot(const Node& document, const Conversion& conversion) {
  const Node* root = nullptr;
  for (const Node* node = document.first_node(); node != nullptr; node = node->next_sibling()) {
    if (node->type() == xml::node_declaration) CheckDeclaration(*node);
    if (node->type() != xml::node_element) continue;
    if (root != nullptr) throw SettingsError(conversion.Convert(*node).line, "something after the end of the document");
    root = node;
  }
  if (root == nullptr) throw SettingsError(1, "there is no element");
  return conversion.Convert(*root);
}

}  // namespace

SettingsError::SettingsError(std::size_t line, const std::string& reason)
    : std::runtime_error("line " + std::to_string(line) + ": " + reason) {}

XmlElement ParseXml(std::string_view text) {
  CheckCharacters(text);
  NestingCheck(text).Run();
  // The parser writes into the text, which must end with a zero.
  std::string parsed(text);
  const auto document = std::make_unique<xml::xml_document<char>>();
  try {
    constexpr int flags = xml::parse_no_element_values | xml::parse_validate_closing_tags | xml::parse_declaration_node;
    document->parse<flags>(parsed.data());
  } catch (const xml::parse_error& error) {
    const auto position = static_cast<std::size_t>(error.where<char>() - parsed.data());
    throw SettingsError(LineAt(text, position), error.what());
  }
  return FindRoot(*document, Conversion(text, parsed.data()));
}

}  // namespace sorvex::settings
