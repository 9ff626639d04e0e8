// What the server does wrong on request, so that agents can be tested and rehearsed against it.
#pragma once

#include <Exchange.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// One kind of misbehaviour and how often it happens. Used by one thread.
class Fault {
 public:
  enum class Kind {
    None,
    Late,                ///< answers N seconds late
    Cut,                 ///< closes after N bytes of a response
    Stall,               ///< says nothing more after N bytes of a response
    ByteByByte,          ///< sends each byte by itself, with N milliseconds between them
    WrongType,           ///< answers with type N
    OversizedString,     ///< announces N bytes for the record version
    OversizedBinary,     ///< announces N bytes for a configuration or patch
    WrongDigest,         ///< sends the digest of other data
    SilentHandshake,     ///< accepts connections and says nothing
    CloseAfterRequest,   ///< closes instead of answering
    Speaks1,             ///< answers an establishment of 2.0 as a server of 1.0 does, with a whole response
    Speaks1TypeOnly,     ///< the same with the type alone
    Html,                ///< answers with the page of a refusal
    Status,              ///< answers with the status N
    Redirect,            ///< answers that the command is to be sent elsewhere
    HeaderWithoutColon,  ///< has a line without a colon among the header fields
    HugeHeader,          ///< has a header field of N bytes
    EndlessBody,         ///< sends a body that has no end
  };

  Fault() = default;

  /// Reads "KIND" or "KIND:N". Returns nothing when it is neither.
  static std::optional<Fault> Parse(std::string_view text);

  /// The kinds as `Parse` takes them, with commas between them.
  static std::string Kinds();

  /// Only in this kind of exchange.
  void LimitTo(Exchange exchange) { m_exchange = exchange; }
  /// Only so many times.
  void LimitTimes(std::uint32_t times) { m_timesLeft = times; }

  /// Whether a connection gets no handshake. Counts.
  bool TakeHandshake();

  /// What is to go wrong with the answer to a request of this kind, `None` otherwise. Counts when something is.
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
