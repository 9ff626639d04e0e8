// The commands that agents send over HTTPS, each in the target of a request.
#pragma once

#include <Exchange.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sorvex::configserver {

/// Texts are decoded. Fields that the command does not have are empty.
struct HttpsCommand {
  Exchange exchange = Exchange::Heartbeat;
  std::string identifier;
  std::string osVersion;
  std::string agentVersion;
  std::vector<std::string> autoCreation;  ///< "key=value" for each parameter
  std::int32_t status = 0;
  std::int32_t uptime = 0;
  std::string outOfDate;  ///< names of patches, separated by commas
};

/// Why a request is answered with an error.
struct Refusal {
  unsigned status = 400;
  std::string reason;  ///< for the log; contains nothing from the request
};

/// Reads a target in origin form: path and query. Keys and values are decoded as in forms: "+" is a blank, %HH a byte.
/// Unknown keys are ignored.
std::variant<HttpsCommand, Refusal> ReadHttpsCommand(std::string_view target);

}  // namespace sorvex::configserver
