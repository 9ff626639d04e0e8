#include <Response.h>

#include <Digest.h>

namespace sorvex::configserver {
namespace {

void AppendU32(std::string& bytes, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xFF);
}

void AppendText(std::string& bytes, std::string_view text) {
  AppendU32(bytes, static_cast<std::uint32_t>(text.size()));
  bytes += text;
}

/// A header and the fields after it; `dataSize` more bytes follow.
std::string WithHeader(std::uint32_t type, WireVersion version, std::string_view fields, std::uint64_t dataSize,
                       std::uint32_t versionLength = 3) {
  const std::string_view text = VersionText(version);
  std::string bytes;
  AppendU32(bytes, type);
  AppendU32(bytes, static_cast<std::uint32_t>(4 + text.size() + fields.size() + dataSize));
  AppendU32(bytes, versionLength);
  return bytes.append(text).append(fields);
}

}  // namespace

std::string WriteResponse(const Answer& answer, Fault::Kind fault, std::uint32_t faultNumber) {
  const bool isVersion2 = answer.version == WireVersion::V2;
  std::string fields;
  AppendU32(fields, static_cast<std::uint32_t>(answer.result));
  if (answer.type == WireType::Establishment2) AppendText(fields, VersionText(WireVersion::V2));
  if (answer.type == WireType::Configuration && isVersion2) {
    AppendU32(fields, static_cast<std::uint32_t>(answer.serverKey.size()));
    // The agent reads a digest's length even for empty data.
    AppendText(fields, answer.serverKey.empty() ? std::string() : DigestOf(answer.serverKey));
    fields += answer.serverKey;
  }
  if (answer.type == WireType::Configuration || answer.type == WireType::Patch) {
    AppendU32(fields,
              fault == Fault::Kind::OversizedBinary ? faultNumber : static_cast<std::uint32_t>(answer.dataSize));
    if (isVersion2) {
      std::string_view digest = answer.dataSize == 0 ? std::string_view() : answer.dataDigest;
      if (fault == Fault::Kind::WrongDigest && !digest.empty()) digest = "00000000000000000000000000000000";
      AppendText(fields, digest);
    }
  }
  const std::uint32_t type = fault == Fault::Kind::WrongType ? faultNumber : static_cast<std::uint32_t>(answer.type);
  return WithHeader(type, answer.version, fields, answer.dataSize,
                    fault == Fault::Kind::OversizedString ? faultNumber : 3);
}

std::string WriteUnknownTypeResponse(std::uint32_t type, WireVersion version) {
  std::string fields;
  AppendU32(fields, static_cast<std::uint32_t>(Result::UnknownType));
  return WithHeader(type, version, fields, 0);
}

}  // namespace sorvex::configserver
