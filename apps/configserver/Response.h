// The bytes of responses.
#pragma once

#include <Fault.h>
#include <Protocol.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// The content of a response, except the bytes of a configuration or patch, which follow as its last field.
struct Answer {
  WireType type = WireType::Establishment2;
  WireVersion version = WireVersion::V2;
  Result result = Result::Success;
  std::string_view serverKey{};  ///< of a configuration in 2.0
  std::uint64_t dataSize = 0;    ///< at most `maxDataBytes`
  std::string_view dataDigest{};
};

/// Returns the response up to the bytes of its configuration or patch, spoiled as `fault` requires.
std::string WriteResponse(const Answer& answer, Fault::Kind fault, std::uint32_t faultNumber);

/// A response to an unknown type: a header and the result.
std::string WriteUnknownTypeResponse(std::uint32_t type, WireVersion version);

}  // namespace sorvex::configserver
