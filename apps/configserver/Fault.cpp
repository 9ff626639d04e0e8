#include <Fault.h>

#include <Protocol.h>

#include <algorithm>
#include <charconv>
#include <iterator>

namespace sorvex::configserver {
namespace {

enum class Spoken { Either, Wire, Https };

struct NamedKind {
  std::string_view name;
  Fault::Kind kind;
  std::uint32_t number;
  Spoken spoken;  ///< where it can show
};

using enum Fault::Kind;

constexpr NamedKind kinds[] = {{"late", Late, 5, Spoken::Either},
                               {"cut", Cut, 10, Spoken::Either},
                               {"stall", Stall, 10, Spoken::Either},
                               {"byte-by-byte", ByteByByte, 0, Spoken::Either},
                               {"silent-handshake", SilentHandshake, 0, Spoken::Either},
                               {"close-after-request", CloseAfterRequest, 0, Spoken::Either},
                               {"wrong-type", WrongType, 99, Spoken::Wire},
                               {"oversized-string", OversizedString, 0x100001, Spoken::Wire},
                               {"oversized-binary", OversizedBinary, maxDataBytes + 1, Spoken::Wire},
                               {"wrong-digest", WrongDigest, 0, Spoken::Wire},
                               {"speaks-1.0", Speaks1, 0, Spoken::Wire},
                               {"speaks-1.0-type-only", Speaks1TypeOnly, 0, Spoken::Wire},
                               {"html", Html, 0, Spoken::Https},
                               {"status", Status, 500, Spoken::Https},
                               {"redirect", Redirect, 0, Spoken::Https},
                               {"header-without-colon", HeaderWithoutColon, 0, Spoken::Https},
                               {"huge-header", HugeHeader, 0x100000, Spoken::Https},
                               {"endless-body", EndlessBody, 0, Spoken::Https}};

Spoken SpokenOf(Fault::Kind kind) {
  const auto found = std::ranges::find(kinds, kind, &NamedKind::kind);
  return found == std::end(kinds) ? Spoken::Either : found->spoken;
}

/// Whether a kind can show in the answer to such a request. One that cannot does not count.
bool Concerns(Fault::Kind kind, Exchange exchange, Protocol protocol) {
  const Spoken spoken = SpokenOf(kind);
  if (spoken != Spoken::Either && (spoken == Spoken::Https) != (protocol == Protocol::Https)) return false;
  switch (kind) {
    case None:
    case SilentHandshake: return false;
    case OversizedBinary:
    case WrongDigest: return exchange == Exchange::Configuration || exchange == Exchange::Patch;
    case Speaks1:
    case Speaks1TypeOnly: return protocol == Protocol::Wire2 && exchange == Exchange::Establishment;
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

Fault::Kind Fault::TakeAnswer(Exchange exchange, Protocol protocol) {
  if (!Concerns(m_kind, exchange, protocol)) return Kind::None;
  if (m_exchange && *m_exchange != exchange) return Kind::None;
  return Take() ? m_kind : Kind::None;
}

bool Fault::Take() {
  if (!m_timesLeft) return true;
  if (*m_timesLeft == 0) return false;
  --*m_timesLeft;
  return true;
}

}  // namespace sorvex::configserver
