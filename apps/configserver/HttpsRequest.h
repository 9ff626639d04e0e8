// The requests that agents send over HTTPS and their reader.
#pragma once

#include <HttpsCommand.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace sorvex::configserver {

struct HttpsRequest {
  std::size_t size = 0;  ///< bytes of it; after a refused one the start of the next is unknown
  std::variant<HttpsCommand, Refusal> content{};
  std::string token{};
  bool keepsConnection = false;  ///< the agent may send another one
};

/// Used for one connection.
class HttpsRequestReader {
 public:
  /// Reads the request at the start of `bytes`; what follows it does not matter. Returns nothing when it is not
  /// complete; the next call gets the same bytes and more. A request above its bound is detected at once, so a caller
  /// that keeps what it has read never keeps more than `maxHttpsRequestBytes` and the last bytes read.
  std::optional<HttpsRequest> Read(std::string_view bytes);

 private:
  std::size_t m_searched = 0;  ///< bytes without an end of the header
};

/// No request is longer: the longest registration has 96 KiB of auto-creation parameters, with three characters per
/// byte.
constexpr std::size_t maxHttpsRequestBytes = 0x80000;

}  // namespace sorvex::configserver
