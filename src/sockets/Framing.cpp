#include "sockets/Framing.h"

#include <charconv>
#include <cstring>

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
  if (payload.empty() && m_kind != Kind::LineFeed) return;
  if (m_kind == Kind::OctetCounting) {
    target = std::to_chars(target, target + AddedBytes(payload.size()), payload.size()).ptr;
    *target++ = ' ';
  }
  if (!payload.empty()) std::memcpy(target, payload.data(), payload.size());
  if (m_kind == Kind::LineFeed) target[payload.size()] = '\n';
}

std::size_t Framing::NeededBytes(std::size_t length) const {
  // Sent again for want of its line feed, a payload would arrive twice. An empty one has only its line feed.
  if (m_kind == Kind::LineFeed && length > 0) return length;
  return length + AddedBytes(length);
}

}  // namespace VaroCommunicationAPI
