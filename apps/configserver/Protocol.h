// The numbers of the wire protocol, from docs/protocol.md.
#pragma once

#include <cstdint>

namespace sorvex::configserver {

enum class WireVersion { V1, V2 };

constexpr const char* VersionText(WireVersion version) { return version == WireVersion::V1 ? "1.0" : "2.0"; }

/// The type codes of requests and responses.
enum class WireType : std::uint32_t {
  Establishment1 = 1,
  Registration = 2,
  Status = 3,
  Configuration = 4,
  Patch = 5,
  Establishment2 = 6,
};

/// The result codes that this server sends.
enum class Result : std::uint32_t {
  Success = 0,
  NewAgent = 1,
  KnownAgent = 2,
  NoUpdate = 5,
  UpdatesDisabled = 7,
  TooBusy = 0x80000002,
  Refused = 0x80000005,
  UnknownType = 0x80000006,
};

constexpr bool IsFailure(Result result) { return static_cast<std::uint32_t>(result) >= 0x80000000; }

/// The longest binary that an agent accepts, in bytes.
constexpr std::uint32_t maxDataBytes = 0x6400000;

}  // namespace sorvex::configserver
