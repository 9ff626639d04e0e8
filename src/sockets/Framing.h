// What surrounds each payload on a connection so that the receiver finds its end.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace VaroCommunicationAPI {

/// A value type. A framing adds the same number of bytes to all payloads of one length.
class Framing {
 public:
  enum class Kind {
    None,          ///< nothing: the transport keeps payloads apart, or the receiver does
    LineFeed,      ///< a line feed after the payload
    OctetCounting  ///< RFC 6587, section 3.4.1: the length in decimal digits and a blank before the payload; an empty
                   ///< payload is not sent, because the format has none
  };

  explicit Framing(Kind kind = Kind::None) : m_kind(kind) {}

  /// Returns the kind of that name, or nothing for an unknown one; `None` has no name.
  static std::optional<Kind> Parse(std::string_view name);

  /// Returns how many bytes are added to a payload of `length` bytes.
  std::size_t AddedBytes(std::size_t length) const;

  /// Writes the payload, which may be empty, with its framing to `target`: exactly `AddedBytes` more than the payload.
  void Write(std::span<const char> payload, char* target) const;

  /// How many bytes of a framed payload of `length` bytes make the receiver accept it if the connection ends there. A
  /// payload of which fewer were accepted is sent again.
  std::size_t NeededBytes(std::size_t length) const;

 private:
  Kind m_kind;
};

}  // namespace VaroCommunicationAPI
