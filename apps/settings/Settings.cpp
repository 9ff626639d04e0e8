#include <settings/Settings.h>

#include <settings/SocketParameters.h>
#include <settings/TlsRange.h>

#include <host/Text.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <locale>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>

namespace sorvex::settings {
namespace {

using collect::InputSettings;

std::string Quote(std::string_view text) { return "'" + std::string(text) + "'"; }

/// Returns an element's attributes and finds those that were not asked for.
class Attributes {
 public:
  explicit Attributes(const XmlElement& element) : m_element(element) {}

  std::optional<std::string> Find(const std::string& name) {
    m_asked.insert(name);
    const auto found = std::ranges::find(m_element.attributes, name, &std::pair<std::string, std::string>::first);
    if (found == m_element.attributes.end()) return std::nullopt;
    return found->second;
  }

  std::string Get(const std::string& name) {
    std::optional<std::string> value = Find(name);
    if (!value || value->empty()) Fail("the attribute " + name + " is missing or empty");
    return *value;
  }

  template <class Number>
  Number GetNumber(const std::string& name, Number lowest, Number highest) {
    return ParseNumber(name, Get(name), lowest, highest);
  }

  template <class Number>
  Number GetNumber(const std::string& name, Number lowest, Number highest, Number defaultValue) {
    const std::optional<std::string> value = Find(name);
    return value ? ParseNumber(name, *value, lowest, highest) : defaultValue;
  }

  /// One of the values of a table, or the first one when the attribute is missing.
  template <class Value, std::size_t size>
  Value GetOneOf(const std::string& name, const std::array<std::pair<std::string_view, Value>, size>& values,
                 bool isRequired) {
    const std::optional<std::string> text = isRequired ? Get(name) : Find(name);
    if (!text) return values.front().second;
    std::string known;
    for (const auto& [word, value] : values) {
      if (*text == word) return value;
      known += (known.empty() ? "" : ", ") + std::string(word);
    }
    Fail(name + " is " + Quote(*text) + "; there are: " + known);
  }

  /// Refuses attributes that were not asked for and, where only attributes belong, text and elements.
  void Finish() const {
    for (const auto& [name, value] : m_element.attributes) {
      if (!m_asked.contains(name)) Fail(m_element.name + " has no attribute " + Quote(name));
    }
  }
  void FinishEmpty() const {
    Finish();
    if (!m_element.text.empty()) Fail(m_element.name + " holds no text");
    if (!m_element.children.empty()) {
      throw SettingsError(m_element.children.front().line, m_element.name + " holds no elements");
    }
  }

  [[noreturn]] void Fail(const std::string& reason) const { throw SettingsError(m_element.line, reason); }

 private:
  template <class Number>
  Number ParseNumber(const std::string& name, const std::string& text, Number lowest, Number highest) const {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < lowest || number > highest) {
      Fail(name + " is " + Quote(text) + "; it takes a number from " + std::to_string(lowest) + " to " +
           std::to_string(highest));
    }
    return number;
  }

  const XmlElement& m_element;
  std::set<std::string> m_asked;
};

/// Passes the elements of a list to the reader for their name. Lists have neither attributes nor text.
template <class... Readers>
void ReadElements(const XmlElement& list, const Readers&... readers) {
  if (!list.text.empty()) throw SettingsError(list.line, list.name + " holds no text");
  for (const XmlElement& element : list.children) {
    const bool isKnown = ((element.name == readers.first && (readers.second(element), true)) || ...);
    if (isKnown) continue;
    std::string known;
    ((known += (known.empty() ? "" : ", ") + std::string(readers.first)), ...);
    throw SettingsError(element.line, list.name + " has no element " + Quote(element.name) + "; there are: " + known);
  }
}

InputSettings ReadFile(const XmlElement& element) {
  constexpr std::array<std::pair<std::string_view, bool>, 2> starts{{{"end", false}, {"beginning", true}}};
  Attributes attributes(element);
  InputSettings input;
  input.kind = InputSettings::Kind::Files;
  input.pattern = attributes.Get("Path");
  if (!WindowsAgentCommon::WideToPath(WindowsAgentCommon::Utf8ToWide(input.pattern)).is_absolute()) {
    attributes.Fail("the path " + Quote(input.pattern) + " is not absolute");
  }
  input.fromBeginning = attributes.GetOneOf("From", starts, false);
  input.maxLineBytes = attributes.GetNumber("MaxLineBytes", InputSettings::minMaxLineBytes,
                                            InputSettings::maxMaxLineBytes, InputSettings::defaultMaxLineBytes);
  attributes.FinishEmpty();
  return input;
}

InputSettings ReadStandardInput(const XmlElement& element) {
  Attributes attributes(element);
  InputSettings input;
  input.kind = InputSettings::Kind::StandardInput;
  input.maxLineBytes = attributes.GetNumber("MaxLineBytes", InputSettings::minMaxLineBytes,
                                            InputSettings::maxMaxLineBytes, InputSettings::defaultMaxLineBytes);
  attributes.FinishEmpty();
  return input;
}

std::vector<InputSettings> ReadInputs(const XmlElement& list) {
  Attributes(list).Finish();
  std::vector<InputSettings> inputs;
  std::set<std::string> patterns;  // standard input has an empty one
  const auto add = [&](const InputSettings& input, std::size_t line) {
    if (!patterns.insert(input.pattern).second) throw SettingsError(line, "this input is given twice");
    inputs.push_back(input);
  };
  ReadElements(
      list, std::pair("File", [&](const XmlElement& element) { add(ReadFile(element), element.line); }),
      std::pair("StandardInput", [&](const XmlElement& element) { add(ReadStandardInput(element), element.line); }));
  return inputs;
}

void ReadParameter(const XmlElement& element, DestinationType type, WindowsAgentCommon::ParameterBlock& parameters) {
  Attributes attributes(element);
  const std::string name = attributes.Get("Name");
  parameters.emplace(name, attributes.Find("Value").value_or(""));
  attributes.FinishEmpty();
  try {
    CheckSocketParameters(parameters, type != DestinationType::Udp, Place::Configuration);
  } catch (const std::invalid_argument& error) {
    attributes.Fail(error.what());
  }
}

void ReadTlsRange(Attributes& attributes, DestinationSettings& destination) {
  destination.minTls = attributes.Find("MinTls").value_or(destination.minTls);
  destination.maxTls = attributes.Find("MaxTls").value_or(destination.maxTls);
  try {
    MakeTlsRange(destination.minTls, destination.maxTls);
  } catch (const std::invalid_argument& error) {
    attributes.Fail(error.what());
  }
}

DestinationSettings ReadDestination(const XmlElement& element, const CertificateReader& readCertificate) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 3> builders{
      {{"SyslogPayloadBuilder", "SyslogPayloadBuilder"},
       {"SyslogBsdPayloadBuilder", "SyslogBsdPayloadBuilder"},
       {"RawPayloadBuilder", "RawPayloadBuilder"}}};
  Attributes attributes(element);
  DestinationSettings destination;
  destination.type = attributes.GetOneOf("Type", destinationTypes, true);

  // First, so that only these are checked: the parameters added below come from attributes.
  std::optional<std::string> certificate;
  ReadElements(
      element,
      std::pair("Parameter",
                [&](const XmlElement& child) { ReadParameter(child, destination.type, destination.parameters); }),
      std::pair("Certificate", [&](const XmlElement& child) {
        Attributes none(child);
        none.Finish();
        if (!child.children.empty()) none.Fail("Certificate holds no elements");
        if (destination.type != DestinationType::Tls) none.Fail("only a tls destination has a certificate");
        if (certificate) none.Fail("the certificate is given twice");
        try {
          certificate = readCertificate(child.text);
        } catch (const std::invalid_argument& error) {
          none.Fail(error.what());
        }
      }));

  const std::string address = attributes.Get("Address");
  if (destination.type == DestinationType::Udp && address.find(':') != std::string::npos) {
    attributes.Fail("udp destinations are IPv4 only");
  }
  destination.parameters.emplace("TargetAddress", address);
  constexpr std::uint16_t highestPort = std::numeric_limits<std::uint16_t>::max();
  destination.parameters.emplace("TargetPort",
                                 std::to_string(attributes.GetNumber<std::uint16_t>("Port", 1, highestPort, 514)));
  destination.parameters.emplace("PayloadBuilderType", attributes.GetOneOf("Builder", builders, false));
  if (destination.type != DestinationType::Udp && attributes.Find("Framing")) {
    destination.parameters.emplace("Framing", attributes.GetOneOf("Framing", framings, true));
  }
  // An agent that sends to several destinations must not wait for one.
  destination.parameters.emplace("Socket.BlockingSendStrategy", "false");
  if (destination.type == DestinationType::Tls) {
    ReadTlsRange(attributes, destination);
    if (!certificate) attributes.Fail("a tls destination needs a Certificate");
    destination.parameters.emplace("Certificate", *certificate);
  }
  attributes.Finish();
  return destination;
}

std::vector<DestinationSettings> ReadDestinations(const XmlElement& list, const CertificateReader& readCertificate) {
  Attributes(list).Finish();
  std::vector<DestinationSettings> destinations;
  std::set<std::string> urls;
  ReadElements(list, std::pair("Destination", [&](const XmlElement& element) {
                 destinations.push_back(ReadDestination(element, readCertificate));
                 const std::string url = destinations.back().Url();
                 if (!urls.insert(url).second) throw SettingsError(element.line, url + " is given twice");
               }));
  return destinations;
}

/// It becomes part of a file's name.
bool IsComponentName(std::string_view name) {
  constexpr std::size_t maxLength = 64;
  return name.size() <= maxLength && !name.starts_with('.') &&
         boost::algorithm::all(
             name, boost::algorithm::is_alnum(std::locale::classic()) || boost::algorithm::is_any_of("._-"));
}

std::vector<ComponentSettings> ReadComponents(const XmlElement& list) {
  Attributes(list).Finish();
  std::vector<ComponentSettings> components;
  std::set<std::string> names;
  ReadElements(list, std::pair("Component", [&](const XmlElement& element) {
                 Attributes attributes(element);
                 ComponentSettings component;
                 component.name = attributes.Get("Name");
                 if (!IsComponentName(component.name)) {
                   attributes.Fail(Quote(component.name) +
                                   " is no name of a component: at most 64 letters, digits, "
                                   "'.', '_' and '-', the first one no '.'");
                 }
                 component.buildNumber =
                     attributes.GetNumber<std::uint32_t>("BuildNumber", 0, std::numeric_limits<std::uint32_t>::max());
                 attributes.FinishEmpty();
                 const std::string name = boost::algorithm::to_lower_copy(component.name, std::locale::classic());
                 if (!names.insert(name).second) attributes.Fail("the component " + name + " is given twice");
                 components.push_back(std::move(component));
               }));
  return components;
}

}  // namespace

std::string DestinationSettings::Url() const {
  const auto* const scheme =
      std::ranges::find(destinationTypes, type, &std::pair<std::string_view, DestinationType>::second);
  const auto value = [this](const char* key) {
    const auto found = parameters.find(key);
    return found == parameters.end() ? std::string() : found->second;
  };
  const std::string address = value("TargetAddress");
  const bool isLiteral = address.find(':') != std::string::npos && !address.starts_with('[');
  return std::string(scheme->first) + "://" + (isLiteral ? "[" + address + "]" : address) + ":" + value("TargetPort");
}

Settings ReadSettings(std::string_view text, const CertificateReader& readCertificate) {
  if (text.size() > maxSettingsBytes) {
    throw SettingsError(1, "the configuration has more than " + std::to_string(maxSettingsBytes) + " bytes");
  }
  const XmlElement root = ParseXml(text);
  if (root.name != "AgentConfig") {
    throw SettingsError(root.line, "the document is " + Quote(root.name) + " and has to be AgentConfig");
  }
  Attributes(root).Finish();
  Settings settings;
  std::set<std::string> lists;
  const auto once = [&lists](const XmlElement& list) {
    if (!lists.insert(list.name).second) throw SettingsError(list.line, list.name + " is given twice");
  };
  ReadElements(root,
               std::pair("Inputs",
                         [&](const XmlElement& list) {
                           once(list);
                           settings.inputs = ReadInputs(list);
                         }),
               std::pair("Destinations",
                         [&](const XmlElement& list) {
                           once(list);
                           settings.destinations = ReadDestinations(list, readCertificate);
                         }),
               std::pair("Components", [&](const XmlElement& list) {
                 once(list);
                 settings.components = ReadComponents(list);
               }));
  return settings;
}

}  // namespace sorvex::settings
