// The destination of events, as the command line names it.
#pragma once

#include <settings/DestinationNames.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace sorvex::agent {

using Scheme = settings::DestinationType;

struct Destination {
  std::string url;  ///< as it was written
  Scheme scheme = Scheme::Tcp;
  std::string host;  ///< a name or an address; an IPv6 address without its brackets
  std::uint16_t port = 0;
};

/// Reads "scheme://host:port" or "scheme://[IPv6 address]:port", the latter not for UDP. Throws `std::invalid_argument`
/// that says what is wrong and, for an unknown scheme, lists the known ones.
Destination ParseDestination(std::string_view text);

}  // namespace sorvex::agent
