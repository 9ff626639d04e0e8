// Requests of an agent to the reference server over HTTPS, consecutive and in pieces.
#include <HttpsRequest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace {

using namespace sorvex::configserver;

void Require(bool holds) {
  if (!holds) std::abort();
}

std::size_t Held(const HttpsCommand& command) {
  std::size_t held =
      command.identifier.size() + command.osVersion.size() + command.agentVersion.size() + command.outOfDate.size();
  for (const auto& parameter : command.autoCreation) held += parameter.size();
  return held;
}

/// Returns the bytes of the request, or 0.
std::size_t Read(std::string_view input) {
  const std::optional<HttpsRequest> whole = HttpsRequestReader().Read(input);
  // In pieces it is the same request, complete at the same byte.
  HttpsRequestReader reader;
  const std::size_t step = std::max<std::size_t>(1, input.size() / 64);
  std::optional<HttpsRequest> pieced;
  for (std::size_t size = 0; size <= input.size() && !pieced; size += step) pieced = reader.Read(input.substr(0, size));
  if (!pieced) pieced = reader.Read(input);
  Require(whole.has_value() == pieced.has_value());
  // A caller that keeps what it has read until a request is complete keeps no more than this.
  Require(whole || input.size() < maxHttpsRequestBytes);
  if (!whole) return 0;
  Require(whole->content.index() == pieced->content.index());
  const auto* const command = std::get_if<HttpsCommand>(&whole->content);
  if (command == nullptr) return 0;
  Require(whole->size == pieced->size && whole->size <= input.size() && whole->size <= maxHttpsRequestBytes);
  Require(whole->token == pieced->token && Held(*command) == Held(std::get<HttpsCommand>(pieced->content)));
  Require(whole->token.size() + Held(*command) < whole->size);
  Require(!HttpsRequestReader().Read(input.substr(0, whole->size - 1)));
  return whole->size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  // The target alone too: most rules of a header are the library's.
  const auto target = ReadHttpsCommand(input);
  if (const auto* const command = std::get_if<HttpsCommand>(&target)) Require(Held(*command) <= size);
  while (const std::size_t read = Read(input)) input.remove_prefix(read);
  return 0;
}
