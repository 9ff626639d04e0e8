// The versions in the message of a mismatch. Each '#' of the input becomes ten thousand digits.
#include "wire/ProtocolMismatchException.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

using SSLConfigServerProto::ProtocolMismatchException;

bool IsNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsVersion(std::string_view text) {
  const std::size_t dot = text.find('.');
  return dot != std::string_view::npos && IsNumber(text.substr(0, dot)) && IsNumber(text.substr(dot + 1));
}

bool HasVersions(std::string_view message) {
  constexpr std::string_view client = "cli:";
  constexpr std::string_view server = " --> svr:";
  const std::size_t middle = message.find(server);
  return message.starts_with(client) && middle != std::string_view::npos &&
         IsVersion(message.substr(client.size(), middle - client.size())) &&
         IsVersion(message.substr(middle + server.size()));
}

void Check(const ProtocolMismatchException& mismatch, const std::string& message) {
  const std::string& client = mismatch.GetClientVersion();
  const std::string& server = mismatch.GetServerVersion();
  if (HasVersions(message)) {
    if ("cli:" + client + " --> svr:" + server != message || !IsVersion(client) || !IsVersion(server)) std::abort();
  } else {
    if (!client.empty() || !server.empty()) std::abort();
  }
  if (mismatch.GetMessageText() != message) std::abort();
  if (!std::string_view(mismatch.what()).starts_with(message.c_str())) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t maxBytes = 1 << 18;
  std::string message;
  for (std::size_t i = 0; i < size && message.size() < maxBytes; ++i) {
    if (data[i] == '#') {
      message.append(10000, '7');
    } else {
      message += static_cast<char>(data[i]);
    }
  }

  auto original = std::make_unique<ProtocolMismatchException>("file", "function", 1, message);
  Check(*original, message);
  const ProtocolMismatchException copy(*original);
  original.reset();
  Check(copy, message);
  return 0;
}
