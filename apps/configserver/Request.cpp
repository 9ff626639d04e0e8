#include <Request.h>

namespace sorvex::configserver {
namespace {

// Bounds of the fields in bytes.
constexpr std::uint32_t maxVersionBytes = 64;
constexpr std::uint32_t maxIdentityBytes = 4096;
constexpr std::uint32_t maxTextBytes = 4096;
constexpr std::uint32_t maxKeyBytes = 16384;
constexpr std::uint32_t maxDigestBytes = 32;
constexpr std::uint32_t maxFingerprintBytes = 128;
constexpr std::uint32_t maxNamesBytes = 65536;
constexpr std::uint32_t maxAutoCreationBytes = 0x100000;

/// Takes field after field. Once one is missing or too long, all later ones are empty.
class FieldReader {
 public:
  explicit FieldReader(std::string_view bytes) : m_rest(bytes) {}

  std::uint32_t U32() { return static_cast<std::uint32_t>(Number(4)); }
  std::int64_t I64() { return static_cast<std::int64_t>(Number(8)); }
  std::string_view Text(std::uint32_t bound) { return Take(Length(bound)); }

  /// An empty binary has no digest, not even its length.
  std::string_view BinaryWithDigest(std::uint32_t bound, std::string_view& digest) {
    const std::uint32_t length = Length(bound);
    if (length == 0) return {};
    digest = Text(maxDigestBytes);
    return Take(length);
  }

  ReadState State() const { return m_state; }
  bool IsComplete() const { return m_state == ReadState::Complete; }
  std::size_t Left() const { return m_rest.size(); }

 private:
  std::uint64_t Number(std::size_t size) {
    std::uint64_t value = 0;
    for (const char byte : Take(size)) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
  }

  std::uint32_t Length(std::uint32_t bound) {
    const std::uint32_t length = U32();
    if (length <= bound) return length;
    m_state = ReadState::TooLong;
    return 0;
  }

  std::string_view Take(std::size_t size) {
    if (!IsComplete()) return {};
    if (m_rest.size() < size) {
      m_state = ReadState::NeedsMore;
      return {};
    }
    const std::string_view bytes = m_rest.substr(0, size);
    m_rest.remove_prefix(size);
    return bytes;
  }

  std::string_view m_rest;
  ReadState m_state = ReadState::Complete;
};

void ReadEstablishment(FieldReader& fields, WireVersion version, Request& request) {
  fields.Text(maxVersionBytes);
  const std::string_view identifier = fields.Text(maxIdentityBytes);
  const std::string_view token = fields.Text(maxIdentityBytes);
  std::uint32_t flags = 0;
  std::int64_t agentTime = 0;
  std::string_view timeZone;
  std::string_view key;
  std::string_view digest;
  if (version == WireVersion::V2) {
    flags = fields.U32();
    agentTime = fields.I64();
    timeZone = fields.Text(maxTextBytes);
    key = fields.BinaryWithDigest(maxKeyBytes, digest);
  }
  if (!fields.IsComplete()) return;
  request.content = Establishment{.version = version,
                                  .identifier = std::string(identifier),
                                  .token = std::string(token),
                                  .isDiagnostic = (flags & 1) != 0,
                                  .agentTime = agentTime,
                                  .timeZone = std::string(timeZone),
                                  .publicKey = std::string(key),
                                  .publicKeyDigest = std::string(digest)};
}

void ReadRegistration(FieldReader& fields, Request& request) {
  const std::string_view osVersion = fields.Text(maxTextBytes);
  const std::string_view agentVersion = fields.Text(maxTextBytes);
  const std::string_view autoCreation = fields.Text(maxAutoCreationBytes);
  if (!fields.IsComplete()) return;
  request.content = Registration{std::string(osVersion), std::string(agentVersion), std::string(autoCreation)};
}

void ReadStatus(FieldReader& fields, Request& request) {
  const std::uint32_t status = fields.U32();
  const std::uint32_t seconds = fields.U32();
  request.content = StatusReport{status, seconds};
}

}  // namespace

ReadResult ReadRequest(std::string_view bytes, Request& request) {
  FieldReader fields(bytes);
  request.type = fields.U32();
  if (!fields.IsComplete()) return {};
  const WireType type{request.type};
  if (type < WireType::Establishment1 || type > WireType::Establishment2) return {ReadState::UnknownType};

  // The size that the agent sends is not used, as the protocol requires.
  fields.U32();
  request.recordVersion = fields.Text(maxVersionBytes);
  switch (type) {
    case WireType::Establishment1: ReadEstablishment(fields, WireVersion::V1, request); break;
    case WireType::Establishment2: ReadEstablishment(fields, WireVersion::V2, request); break;
    case WireType::Registration: ReadRegistration(fields, request); break;
    case WireType::Status: ReadStatus(fields, request); break;
    case WireType::Configuration:
      request.content = ConfigurationQuery{std::string(fields.Text(maxFingerprintBytes))};
      break;
    case WireType::Patch: request.content = PatchQuery{std::string(fields.Text(maxNamesBytes))}; break;
  }
  return {fields.State(), fields.IsComplete() ? bytes.size() - fields.Left() : 0};
}

}  // namespace sorvex::configserver
