// The server's misbehaviour on request, to test and rehearse agents.
#pragma once

#include <Exchange.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// One kind of misbehaviour and how often it happens. One thread.
class Fault {
 public:
  enum class Kind {
    None,
    Late,                ///< answers N seconds late
    Cut,                 ///< closes after N bytes of a response
    Stall,               ///< sends nothing more after N bytes of a response
    ByteByByte,          ///< sends each byte separately, with N milliseconds between them
    WrongType,           ///< answers with type N
    OversizedString,     ///< announces N bytes for the record version
    OversizedBinary,     ///< announces N bytes for a configuration or patch
    WrongDigest,         ///< sends the digest of other data
    SilentHandshake,     ///< accepts connections and sends nothing
    CloseAfterRequest,   ///< closes instead of answering
    Speaks1,             ///< answers an establishment of 2.0 as a server of 1.0 does, with a whole response
    Speaks1TypeOnly,     ///< the same with only the type
    Html,                ///< answers with the page for a rejected token
    Status,              ///< answers with the status N
    Redirect,            ///< answers with a redirection
    HeaderWithoutColon,  ///< sends a header line without a colon
    HugeHeader,          ///< sends a header field of N bytes
    EndlessBody,         ///< sends an endless body
  };

  Fault() = default;

  /// Reads "KIND" or "KIND:N". Returns nothing when it is neither.
  static std::optional<Fault> Parse(std::string_view text);

  /// The kinds as `Parse` takes them, separated by commas.
  static std::string Kinds();

  /// Limits it to this kind of exchange.
  void LimitTo(Exchange exchange) { m_exchange = exchange; }
  /// Limits it to so many times.
  void LimitTimes(std::uint32_t times) { m_timesLeft = times; }

  /// Whether a connection gets no handshake. Counts.
  bool TakeHandshake();

  /// The fault for the answer to a request of this kind, or `None`. Counts when there is one.
  Kind TakeAnswer(Exchange exchange, Protocol protocol);

  /// N, or the kind's own default.
  std::uint32_t Number() const { return m_number; }

 private:
  bool Take();

  Kind m_kind = Kind::None;
  std::uint32_t m_number = 0;
  std::optional<Exchange> m_exchange;
  std::optional<std::uint32_t> m_timesLeft;
};

}  // namespace sorvex::configserver
