#include <CommunicationAPI/SSLProtocolList.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include <locale>

namespace VaroCommunicationAPI {

namespace {

struct ProtocolName {
  SSLProtocolList::Protocol protocol;
  const char* text;
};

constexpr ProtocolName protocolNames[] = {
    {SSLProtocolList::TLSv1, "TLSv1"},
    {SSLProtocolList::TLSv1_1, "TLSv1.1"},
    {SSLProtocolList::TLSv1_2, "TLSv1.2"},
};

std::string Trimmed(const std::string& text) { return boost::algorithm::trim_copy(text, std::locale::classic()); }

}  // namespace

SSLProtocolList::SSLProtocolList() : m_min(TLSv1), m_max(TLSv1_2) {}
SSLProtocolList::SSLProtocolList(const SSLProtocolList& other) = default;
SSLProtocolList& SSLProtocolList::operator=(const SSLProtocolList& other) = default;

std::optional<SSLProtocolList::Protocol> SSLProtocolList::parse(const std::string& text) const {
  const std::string trimmed = Trimmed(text);
  for (const ProtocolName& name : protocolNames) {
    if (boost::algorithm::iequals(trimmed, name.text, std::locale::classic())) return name.protocol;
  }
  return std::nullopt;
}

// The logger comes by value: other modules are built against this signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool SSLProtocolList::setRange(const std::string& min, const std::string& max, WindowsAgentCommon::Log log) {
  const std::string minText = Trimmed(min);
  const std::string maxText = Trimmed(max);
  if (minText.empty() || maxText.empty()) {
    if (minText.empty()) log.Error("The minimum SSL protocol is not specified.");
    if (maxText.empty()) log.Error("The maximum SSL protocol is not specified.");
    return false;
  }
  const std::optional<Protocol> minimum = parse(minText);
  const std::optional<Protocol> maximum = parse(maxText);
  if (!minimum || !maximum) {
    if (!minimum) log.Error("The minimum SSL protocol (%s) is unrecognized.", minText);
    if (!maximum) log.Error("The maximum SSL protocol (%s) is unrecognized.", maxText);
    return false;
  }
  if (*maximum < *minimum) {
    log.Error("The minimum SSL protocol (%s) is higher than the maximum SSL protocol (%s).", minText, maxText);
    return false;
  }
  m_min = *minimum;
  m_max = *maximum;
  return true;
}

}  // namespace VaroCommunicationAPI
