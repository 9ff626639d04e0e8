// The transports of destinations, as tests and benchmarks go through them, with their names.
#pragma once

#include <array>
#include <ostream>

namespace sorvex::test {

enum class Transport { Tcp, Tls, Udp };

inline constexpr std::array allTransports{Transport::Tcp, Transport::Tls, Transport::Udp};

inline const char* Name(Transport transport) {
  switch (transport) {
    case Transport::Tcp: return "TCP";
    case Transport::Tls: return "TLS";
    case Transport::Udp: return "UDP";
  }
  return "?";
}

inline void PrintTo(Transport transport, std::ostream* out) { *out << Name(transport); }

}  // namespace sorvex::test
