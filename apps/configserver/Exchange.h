// The exchanges that agents ask for, in either protocol.
#pragma once

#include <array>
#include <utility>

namespace sorvex::configserver {

enum class Protocol { Wire1, Wire2, Https };

enum class Exchange { Establishment, Registration, Heartbeat, Status, Fingerprint, Configuration, Patch };

/// As the command line and the log call them.
constexpr std::array<std::pair<const char*, Exchange>, 7> exchangeNames{{{"connect", Exchange::Establishment},
                                                                         {"register", Exchange::Registration},
                                                                         {"heartbeat", Exchange::Heartbeat},
                                                                         {"status", Exchange::Status},
                                                                         {"fingerprint", Exchange::Fingerprint},
                                                                         {"configuration", Exchange::Configuration},
                                                                         {"patch", Exchange::Patch}}};

constexpr const char* NameOf(Exchange exchange) {
  for (const auto& [name, named] : exchangeNames) {
    if (named == exchange) return name;
  }
  return "unknown";
}

}  // namespace sorvex::configserver
