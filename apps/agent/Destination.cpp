#include <Destination.h>

#include <boost/algorithm/string/predicate.hpp>

#include <charconv>
#include <locale>
#include <stdexcept>

namespace sorvex::agent {
namespace {

/// RFC 3986, 3.1: letters of either case.
bool IsScheme(std::string_view text, std::string_view name) {
  return boost::algorithm::iequals(text, name, std::locale::classic());
}

Scheme ParseScheme(std::string_view text) {
  std::string known;
  for (const auto& [name, scheme] : settings::destinationTypes) {
    if (IsScheme(text, name)) return scheme;
    known += (known.empty() ? "" : ", ") + std::string(name);
  }
  throw std::invalid_argument("unknown scheme '" + std::string(text) + "'; there are: " + known);
}

std::uint16_t ParsePort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) {
    throw std::invalid_argument("the port '" + std::string(text) + "' is not a number from 1 to 65535");
  }
  return port;
}

}  // namespace

Destination ParseDestination(std::string_view text) {
  constexpr std::string_view separator = "://";
  const std::size_t schemeEnd = text.find(separator);
  if (schemeEnd == std::string_view::npos) {
    throw std::invalid_argument("'" + std::string(text) + "' is not SCHEME://HOST:PORT");
  }
  Destination destination;
  destination.url = text;
  destination.scheme = ParseScheme(text.substr(0, schemeEnd));

  const std::string_view address = text.substr(schemeEnd + separator.size());
  const bool literal = address.starts_with('[');
  const std::size_t hostEnd = literal ? address.find("]:") : address.find(':');
  const std::string_view host = hostEnd == std::string_view::npos
                                    ? std::string_view()
                                    : address.substr(literal ? 1 : 0, hostEnd - (literal ? 1 : 0));
  if (host.empty()) throw std::invalid_argument("'" + std::string(text) + "' is not SCHEME://HOST:PORT");
  if (destination.scheme == Scheme::Udp && host.find(':') != std::string_view::npos) {
    throw std::invalid_argument("'" + std::string(text) + "': udp destinations are IPv4 only");
  }
  destination.host = host;
  destination.port = ParsePort(address.substr(hostEnd + (literal ? 2 : 1)));
  return destination;
}

}  // namespace sorvex::agent
