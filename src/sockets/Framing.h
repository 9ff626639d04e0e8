// What stands around each payload on a connection, so that the receiver finds its end.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace VaroCommunicationAPI {

/// A value. A framing adds the same number of bytes to all payloads of one length.
class Framing {
 public:
  enum class Kind {
    None,          ///< nothing: the transport keeps payloads apart, or the receiver does
    LineFeed,      ///< a line feed behind the payload
    OctetCounting  ///< RFC 6587, section 3.4.1: the length in decimal digits and a blank before the payload; an
                   ///< empty one, which there cannot be, is not sent
  };

  explicit Framing(Kind kind = Kind::None) : m_kind(kind) {}

  /// The kind of a name; nothing for an unknown one, and `None` has none.
  static std::optional<Kind> Parse(std::string_view name);

  /// Bytes that are added to a payload of `length` bytes.
  std::size_t AddedBytes(std::size_t length) const;

  /// Writes the payload, which may be empty, with its framing to `target`: exactly `AddedBytes` more than the payload.
  void Write(std::span<const char> payload, char* target) const;

  /// How many bytes of a framed payload of `length` bytes the receiver needs to take them for the payload when the
  /// connection ends there. A payload of which fewer were accepted is sent again.
  std::size_t NeededBytes(std::size_t length) const;

 private:
  Kind m_kind;
};

}  // namespace VaroCommunicationAPI
