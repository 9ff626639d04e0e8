#include <HttpsCommand.h>

#include <array>
#include <charconv>
#include <map>
#include <utility>

namespace sorvex::configserver {
namespace {

constexpr std::string_view commandPath = "/console/sorvex";
constexpr std::string_view autoCreationPrefix = "AutoCreation.";

constexpr std::array<std::pair<std::string_view, Exchange>, 6> commands{
    {{"RegisterInstance", Exchange::Registration},
     {"PostHeartbeat", Exchange::Heartbeat},
     {"UpdateStatus", Exchange::Status},
     {"GetConfigurationFingerprint", Exchange::Fingerprint},
     {"RetrieveConfiguration", Exchange::Configuration},
     {"RetrieveSoftwarePatch", Exchange::Patch}}};

/// Throws a `Refusal` for an invalid escape.
std::string Decode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i] == '+' ? ' ' : text[i];
      continue;
    }
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned byte = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + digits.size())
      throw Refusal{400, "invalid escape"};
    decoded += static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

/// The fields of a query. Throws a `Refusal` for an invalid one.
class Query {
 public:
  explicit Query(std::string_view text) {
    while (!text.empty()) {
      const std::size_t end = text.find('&');
      Add(text.substr(0, end));
      text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
  }

  /// Throws a `Refusal` when there is no such field.
  std::string Text(const char* key) const {
    const auto found = m_fields.find(key);
    if (found == m_fields.end()) throw Refusal{400, std::string("no ") + key};
    return found->second;
  }

  std::int32_t Number(const char* key) const {
    const std::string text = Text(key);
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
      throw Refusal{400, std::string(key) + " is no number"};
    return number;
  }

  std::vector<std::string> TakeAutoCreation() { return std::move(m_autoCreation); }

 private:
  void Add(std::string_view field) {
    if (field.empty()) return;
    const std::size_t separator = field.find('=');
    std::string key = Decode(field.substr(0, separator));
    std::string value = separator == std::string_view::npos ? std::string() : Decode(field.substr(separator + 1));
    if (key.starts_with(autoCreationPrefix)) {
      // An agent may have several with the same name.
      m_autoCreation.push_back(key + "=" + value);
    } else if (!m_fields.emplace(std::move(key), std::move(value)).second) {
      throw Refusal{400, "a key comes twice"};
    }
  }

  std::map<std::string, std::string, std::less<>> m_fields;
  std::vector<std::string> m_autoCreation;
};

Exchange ExchangeOf(std::string_view name) {
  for (const auto& [known, exchange] : commands) {
    if (known == name) return exchange;
  }
  throw Refusal{400, "unknown command"};
}

HttpsCommand ReadQuery(Query query) {
  HttpsCommand command;
  command.exchange = ExchangeOf(query.Text("Name"));
  command.identifier = query.Text("Identifier");
  switch (command.exchange) {
    case Exchange::Registration:
      command.osVersion = query.Text("OS version");
      command.agentVersion = query.Text("Sorvex version");
      command.autoCreation = query.TakeAutoCreation();
      break;
    case Exchange::Status:
      command.status = query.Number("Status");
      command.uptime = query.Number("Uptime");
      break;
    case Exchange::Patch: command.outOfDate = query.Text("OutOfDateList"); break;
    default: break;
  }
  return command;
}

}  // namespace

std::variant<HttpsCommand, Refusal> ReadHttpsCommand(std::string_view target) {
  const std::size_t separator = target.find('?');
  if (target.substr(0, separator) != commandPath) return Refusal{404, "unknown path"};
  const std::string_view query = separator == std::string_view::npos ? "" : target.substr(separator + 1);
  try {
    return ReadQuery(Query(query));
  } catch (const Refusal& refusal) {
    return refusal;
  }
}

}  // namespace sorvex::configserver
