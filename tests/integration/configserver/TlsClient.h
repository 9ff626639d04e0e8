// A TLS client that sends and receives exactly the bytes that a test gives it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace sorvex::test {

/// Trusts any certificate. Each operation ends within the test's patience. One thread.
class TlsClient {
 public:
  enum class Start { Handshake, Connect };

  /// Connects to a loopback port, and does the handshake unless told not to; `IsOpen` returns whether that succeeded.
  explicit TlsClient(std::uint16_t port, Start start = Start::Handshake);
  ~TlsClient();
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;

  bool IsOpen() const;

  void Send(std::string_view bytes);

  /// Returns `count` bytes, or less when the server ends the connection first.
  std::string Receive(std::size_t count);

  /// Waits for the server to end the connection; returns what arrived before.
  std::string ReceiveAll();

  /// Whether the server has ended the connection, as seen by the last operation.
  bool IsEnded() const;

  /// Whether it did so with a TLS close_notify.
  bool HasFarewell() const;

  /// The server's certificate as PEM.
  std::string Certificate() const;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace sorvex::test
