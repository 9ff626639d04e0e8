// The commands that agents send over HTTPS, each in the target of a request.
#pragma once

#include <Exchange.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sorvex::configserver {

/// Texts are decoded. Those that the command does not have are empty.
struct HttpsCommand {
  Exchange exchange = Exchange::Heartbeat;
  std::string identifier;
  std::string osVersion;
  std::string agentVersion;
  std::vector<std::string> autoCreation;  ///< "key=value" for each parameter
  std::int32_t status = 0;
  std::int32_t uptime = 0;
  std::string outOfDate;  ///< names of patches, with commas between them
};

/// Why a request gets no answer but an error.
struct Refusal {
  unsigned status = 400;
  std::string reason;  ///< for the log; holds nothing of the request
};

/// Reads a target in origin form: path and query. Keys and values are decoded as those of forms: "+" is a blank, %HH a
/// byte. A key that no command has is ignored.
std::variant<HttpsCommand, Refusal> ReadHttpsCommand(std::string_view target);

}  // namespace sorvex::configserver
