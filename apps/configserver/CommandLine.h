// The command line of sorvex-configserver.
#pragma once

#include <Fault.h>
#include <Protocol.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace sorvex::configserver {

struct Options {
  std::filesystem::path data;
  std::string listen = "0.0.0.0";
  std::optional<std::uint16_t> wirePort;  ///< at least one of the two
  std::optional<std::uint16_t> httpsPort;
  std::filesystem::path certificate;  ///< empty, like `key`: the server's own in the data folder
  std::filesystem::path key;
  WireVersion wireVersion = WireVersion::V2;
  std::size_t maxAgents = std::numeric_limits<std::size_t>::max();
  std::size_t maxConnections = 10000;
  std::chrono::seconds idleTimeout{60};
  std::chrono::seconds requestTimeout{30};
  Fault fault;
};

/// Reads the arguments after the program's name. Returns nothing when there is nothing to run: either help was printed
/// and `status` is 0, or the usage error was printed to standard error and `status` is 2.
std::optional<Options> ParseCommandLine(std::vector<std::string> arguments, int& status);

}  // namespace sorvex::configserver
