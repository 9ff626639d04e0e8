#include "sockets/Framing.h"

#include <algorithm>
#include <charconv>

namespace VaroCommunicationAPI {

namespace {

std::size_t DecimalDigits(std::size_t number) {
  std::size_t digits = 1;
  for (; number >= 10; number /= 10) ++digits;
  return digits;
}

}  // namespace

std::optional<Framing::Kind> Framing::Parse(std::string_view name) {
  if (name == "LineFeed") return Kind::LineFeed;
  if (name == "OctetCounting") return Kind::OctetCounting;
  return {};
}

std::size_t Framing::AddedBytes(std::size_t length) const {
  switch (m_kind) {
    case Kind::None: return 0;
    case Kind::LineFeed: return 1;
    case Kind::OctetCounting: return length == 0 ? 0 : DecimalDigits(length) + 1;
  }
  return 0;
}

void Framing::Write(std::span<const char> payload, char* target) const {
  switch (m_kind) {
    case Kind::None: std::ranges::copy(payload, target); break;
    case Kind::LineFeed: *std::ranges::copy(payload, target).out = '\n'; break;
    case Kind::OctetCounting:
      if (payload.empty()) break;
      target = std::to_chars(target, target + AddedBytes(payload.size()), payload.size()).ptr;
      *target++ = ' ';
      std::ranges::copy(payload, target);
      break;
  }
}

std::size_t Framing::NeededBytes(std::size_t length) const {
  switch (m_kind) {
    // At the end of a connection the receiver accepts a payload without its line feed; sent again, it would arrive
    // twice. An empty payload is only its line feed.
    case Kind::LineFeed: return length > 0 ? length : 1;
    case Kind::None:
    case Kind::OctetCounting: break;
  }
  return length + AddedBytes(length);
}

}  // namespace VaroCommunicationAPI
