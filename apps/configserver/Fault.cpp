#include <Fault.h>

#include <array>
#include <charconv>

namespace sorvex::configserver {
namespace {

struct NamedKind {
  std::string_view name;
  Fault::Kind kind;
  std::uint32_t number;
};

using enum Fault::Kind;

constexpr std::array<NamedKind, 11> kinds{{{"late", Late, 5},
                                           {"cut", Cut, 10},
                                           {"byte-by-byte", ByteByByte, 0},
                                           {"wrong-type", WrongType, 99},
                                           {"oversized-string", OversizedString, 0x100001},
                                           {"oversized-binary", OversizedBinary, maxDataBytes + 1},
                                           {"wrong-digest", WrongDigest, 0},
                                           {"silent-handshake", SilentHandshake, 0},
                                           {"close-after-request", CloseAfterRequest, 0},
                                           {"speaks-1.0", Speaks1, 0},
                                           {"speaks-1.0-type-only", Speaks1TypeOnly, 0}}};

Exchange OneEstablishment(Exchange exchange) {
  return exchange == Exchange::Establishment1 ? Exchange::Establishment2 : exchange;
}

/// Whether a kind can show in the answer to such a request. One that cannot does not count.
bool Concerns(Fault::Kind kind, Exchange exchange) {
  switch (kind) {
    case None:
    case SilentHandshake: return false;
    case OversizedBinary:
    case WrongDigest: return exchange == Exchange::Configuration || exchange == Exchange::Patch;
    case Speaks1:
    case Speaks1TypeOnly: return exchange == Exchange::Establishment2;
    default: return true;
  }
}

}  // namespace

std::optional<Fault> Fault::Parse(std::string_view text) {
  const std::size_t colon = text.find(':');
  for (const NamedKind& entry : kinds) {
    if (entry.name != text.substr(0, colon)) continue;
    Fault fault;
    fault.m_kind = entry.kind;
    fault.m_number = entry.number;
    if (colon == std::string_view::npos) return fault;
    const char* const end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data() + colon + 1, end, fault.m_number);
    if (error != std::errc() || last != end) return std::nullopt;
    return fault;
  }
  return std::nullopt;
}

std::string Fault::Kinds() {
  std::string names;
  for (const NamedKind& entry : kinds) names.append(names.empty() ? "" : ", ").append(entry.name);
  return names;
}

bool Fault::TakeHandshake() { return m_kind == Kind::SilentHandshake && Take(); }

Fault::Kind Fault::TakeAnswer(Exchange exchange) {
  if (!Concerns(m_kind, exchange)) return Kind::None;
  if (m_exchange && OneEstablishment(*m_exchange) != OneEstablishment(exchange)) return Kind::None;
  return Take() ? m_kind : Kind::None;
}

bool Fault::Take() {
  if (!m_timesLeft) return true;
  if (*m_timesLeft == 0) return false;
  --*m_timesLeft;
  return true;
}

}  // namespace sorvex::configserver
