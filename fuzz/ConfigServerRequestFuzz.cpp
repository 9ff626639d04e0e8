// Consecutive requests of an agent to the reference server.
#include <Request.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

using namespace sorvex::configserver;

/// The request's content must be part of its bytes.
struct CheckSize {
  std::size_t size;

  void operator()(const Establishment& content) const {
    Check(content.identifier.size() + content.token.size() + content.timeZone.size() + content.publicKey.size() +
          content.publicKeyDigest.size());
  }
  void operator()(const Registration& content) const {
    Check(content.osVersion.size() + content.agentVersion.size() + content.autoCreation.size());
  }
  void operator()(const StatusReport&) const {}
  void operator()(const ConfigurationQuery& content) const { Check(content.digest.size()); }
  void operator()(const PatchQuery& content) const { Check(content.names.size()); }

  void Check(std::size_t held) const {
    if (held > size) std::abort();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  for (;;) {
    Request request;
    const ReadResult read = ReadRequest(input, request);
    if (read.state != ReadState::Complete) {
      // A caller that keeps what it has read until a request is complete keeps no more than this.
      if (read.state == ReadState::NeedsMore && input.size() > maxRequestBytes) std::abort();
      return 0;
    }
    if (read.size > input.size() || read.size > maxRequestBytes || read.size < 15 - 3) std::abort();
    std::visit(CheckSize{read.size}, request.content);
    // The same request cut short is never taken for a whole one, nor for another.
    for (const std::size_t cut : {read.size - 1, read.size / 2}) {
      Request other;
      if (ReadRequest(input.substr(0, cut), other).state != ReadState::NeedsMore) std::abort();
    }
    input.remove_prefix(read.size);
  }
}
