// The requests of the wire protocol and their reader.
#pragma once

#include <Protocol.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace sorvex::configserver {

struct Establishment {
  WireVersion version = WireVersion::V1;
  std::string identifier;
  std::string token;
  bool isDiagnostic = false;
  std::int64_t agentTime = 0;  ///< seconds since 1970-01-01 00:00 UTC
  std::string timeZone;
  std::string publicKey;        ///< DER; empty in 1.0
  std::string publicKeyDigest;  ///< MD5 of the key as the agent sent it; may be empty
};

struct Registration {
  std::string osVersion;
  std::string agentVersion;
  std::string autoCreation;
};

struct StatusReport {
  std::uint32_t status = 0;
  std::uint32_t seconds = 0;  ///< since 1970-01-01 00:00 UTC
};

struct ConfigurationQuery {
  std::string digest;  ///< MD5 of the agent's configuration
};

struct PatchQuery {
  std::string names;  ///< one or several, separated by commas
};

struct Request {
  std::uint32_t type = 0;
  std::string recordVersion;
  std::variant<Establishment, Registration, StatusReport, ConfigurationQuery, PatchQuery> content;
};

enum class ReadState {
  NeedsMore,    ///< the bytes end before the request does
  Complete,     ///< `request` holds it
  UnknownType,  ///< only `request.type` is set: the end of the request is unknown
  TooLong,      ///< a length is above its bound: the stream is unusable
};

struct ReadResult {
  ReadState state = ReadState::NeedsMore;
  std::size_t size = 0;  ///< bytes of the complete request
};

/// Reads the request at the start of `bytes`; what follows it does not matter. A length above its bound is detected as
/// soon as it has arrived, so a caller that keeps what it has read never keeps more than `maxRequestBytes`.
ReadResult ReadRequest(std::string_view bytes, Request& request);

/// No request is longer.
constexpr std::size_t maxRequestBytes = 0x120000;

}  // namespace sorvex::configserver
