// Text that is wiped from memory once it is freed: the application token.
#pragma once

#include "platform/Memory.h"

#include <cstddef>
#include <string_view>
#include <vector>

namespace VaroCommunicationAPI::Platform {

/// Wipes its memory on every path: on destruction, assignment, move and growth. So do copies. There is no implicit
/// conversion; whoever makes a plain string of `View()` is responsible for wiping it with `PlainSecret` or `WipePlain`.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string_view text) : m_text(text.begin(), text.end()) {}

  /// Valid until the text is changed.
  std::string_view View() const { return {m_text.data(), m_text.size()}; }

  /// For a producer that fills the text in place: makes room, gives access, and cuts off what was not filled.
  void Resize(std::size_t size) { m_text.resize(size); }
  char* Data() { return m_text.data(); }

 private:
  // No std::basic_string: it keeps short texts inside itself, where no allocator wipes them.
  std::vector<char, WipingAllocator<char>> m_text;
};

/// Wipes a plain string or vector of bytes, including the unused part of its memory, and leaves it empty.
template <class Container>
void WipePlain(Container& plain) {
  plain.resize(plain.capacity());
  WipeMemory(plain.data(), plain.size());
  plain.clear();
}

/// A plain string or vector of bytes, for a secret that must pass through an interface of the host; wiped on
/// destruction. The interface may assign it once: memory that is replaced is not wiped.
template <class Container>
class PlainSecret {
 public:
  PlainSecret() = default;
  ~PlainSecret() { WipePlain(m_plain); }
  PlainSecret(const PlainSecret&) = delete;
  PlainSecret& operator=(const PlainSecret&) = delete;

  Container& operator*() { return m_plain; }

 private:
  Container m_plain;
};

}  // namespace VaroCommunicationAPI::Platform
