// The header lines of an HTTP response, one at a time as from libcurl. Each '#' of the input becomes ten thousand
// letters.
#include "connection/ConfigServerConnection.h"
#include "support/ConfigServerConnectionPeer.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using VaroCommunicationAPI::ConfigServerConnection;
using VaroCommunicationAPI::ConfigServerConnectionPeer;

bool IsTrimmed(std::string_view text) {
  constexpr std::string_view whiteSpace = " \t\n\v\f\r";
  return text.empty() || (whiteSpace.find(text.front()) == std::string_view::npos &&
                          whiteSpace.find(text.back()) == std::string_view::npos);
}

void Check(const ConfigServerConnection& connection) {
  std::size_t bytes = 0;
  for (const auto& [name, value] : ConfigServerConnectionPeer::Headers(connection)) {
    if (!IsTrimmed(name) || !IsTrimmed(value) || name.find(':') != std::string::npos) std::abort();
    bytes += name.size() + value.size();
  }
  // The name of the status line is ours.
  if (bytes > VaroCommunicationAPI::ResponseHeaders::maxBytes + std::string_view("Version").size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t maxBytes = 1 << 22;
  ConfigServerConnection connection;
  std::string line;
  std::size_t total = 0;
  const auto hand = [&] {
    if (ConfigServerConnectionPeer::OnResponseHeader(connection, line, 1) != line.size()) std::abort();
    if (line.starts_with("HTTP/") && ConfigServerConnectionPeer::Headers(connection).size() > 1) std::abort();
    line.clear();
  };
  for (std::size_t i = 0; i < size && total < maxBytes; ++i) {
    if (data[i] == '#') {
      line.append(10000, 'h');
      total += 10000;
    } else {
      line += static_cast<char>(data[i]);
      ++total;
    }
    if (data[i] == '\n') hand();
  }
  hand();
  Check(connection);
  return 0;
}
